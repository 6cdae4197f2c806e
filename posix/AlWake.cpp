/*
 * AlWake.cpp (POSIX) - the wake-up of an event-receive queue: an
 * auto-reset event of the library, which the owner's message-pumping waits
 * wait for beside their own objects.
 */
#include "AlSync.h"
#include "AlWake.h"

namespace plat {

void erp_wake_init(void) {
}

void erp_wake_exit(void) {
}

bool erp_wake_create(ErpWake* w) {
    w->wnd = nullptr;
    w->evt = event_create(0, 0);
    return w->evt != nullptr;
}

void erp_wake_signal(const ErpWake* w) {
    event_set(w->evt);
}

void erp_wake_retire(ErpWake*) {
}

void erp_wake_destroy(ErpWake* w) {
    handle_close(w->evt);
    w->evt = nullptr;
}

} // namespace plat
