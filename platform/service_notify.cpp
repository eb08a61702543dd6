#include "platform/service_notify.hpp"

#ifdef ORVANE_HAVE_SYSTEMD
#include <systemd/sd-daemon.h>
#endif

namespace orv {

void notify_service_ready() {
#ifdef ORVANE_HAVE_SYSTEMD
    sd_notify(0, "READY=1");
#endif
}

void notify_service_stopping() {
#ifdef ORVANE_HAVE_SYSTEMD
    sd_notify(0, "STOPPING=1");
#endif
}

} // namespace orv
