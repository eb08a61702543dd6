#pragma once
// Tells the service manager how start-up and shutdown go, when the server runs as a notify
// service; does nothing otherwise (or when built without libsystemd).
namespace orv {

// Start-up is done: the listeners are up and the tables loaded.
void notify_service_ready();
// The orderly shutdown has begun.
void notify_service_stopping();

} // namespace orv
