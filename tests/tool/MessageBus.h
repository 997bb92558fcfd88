// A bus to build sd-bus messages on, with nobody at the other end: sd-bus makes messages only
// on a started bus, and one started on a socketpair needs no daemon (its authentication never
// completes, which building, sealing and reading messages do not need).
#pragma once

#include <sys/socket.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

namespace hxf_test {

class MessageBus {
 public:
  MessageBus() {
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds_) < 0) return;
    if (sd_bus_new(&bus_) < 0) return;
    if (sd_bus_set_fd(bus_, fds_[0], fds_[0]) >= 0) fds_[0] = -1;  // the bus closes it
    if (fds_[0] >= 0 || sd_bus_start(bus_) < 0) bus_ = sd_bus_close_unref(bus_);
  }
  ~MessageBus() {
    sd_bus_close_unref(bus_);
    for (int fd : fds_) {
      if (fd >= 0) close(fd);
    }
  }
  MessageBus(const MessageBus&) = delete;
  MessageBus& operator=(const MessageBus&) = delete;

  // A new empty method call, or null; the caller unrefs it.
  sd_bus_message* NewMessage() const {
    sd_bus_message* m = nullptr;
    if (bus_ == nullptr ||
        sd_bus_message_new_method_call(bus_, &m, "org.hxf.Test", "/org/hxf/Test", "org.hxf.Test1", "Values") < 0)
      return nullptr;
    return m;
  }

  // Seals `m` and rewinds it for reading, as a receiver would find it.
  static int Seal(sd_bus_message* m) {
    const int r = sd_bus_message_seal(m, 1, 0);
    return r < 0 ? r : sd_bus_message_rewind(m, 1);
  }

 private:
  sd_bus* bus_ = nullptr;
  int fds_[2] = {-1, -1};
};

}  // namespace hxf_test
