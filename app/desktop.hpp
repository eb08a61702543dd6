#pragma once
// The desktop front end, built only with Qt. Runs the window on the calling thread and the
// event loop on a thread of its own; returns the process exit status.
namespace orv {

class ServerApp;

int run_desktop(ServerApp& app, int argc, char** argv);
// Asks a running instance on the same start directory to show its window (second start).
void raise_running_instance(const char* start_dir);

} // namespace orv
