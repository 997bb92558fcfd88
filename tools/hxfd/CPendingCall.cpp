#include "CPendingCall.h"

#include "BusValues.h"

namespace hxfd {

void CPendingCall::ReplyDevices(const std::vector<hxf_tool::Device>& devices) {
  if (call_ == nullptr) return;
  hxf_tool::BusMessage reply;
  int r = sd_bus_message_new_method_return(call_.get(), hxf_tool::Out(reply));
  if (r >= 0) r = sd_bus_message_open_container(reply.get(), 'a', "a{sv}");
  for (const hxf_tool::Device& device : devices) {
    if (r >= 0) r = hxf_tool::AppendDevice(reply.get(), device);
  }
  if (r >= 0) r = sd_bus_message_close_container(reply.get());
  if (r >= 0) r = sd_bus_send(nullptr, reply.get(), nullptr);
  if (r < 0) sd_bus_reply_method_errno(call_.get(), r, nullptr);
  call_.reset();
}

void CPendingCall::ReplyProperties(const std::vector<hxf_tool::PropertyValue>& properties) {
  if (call_ == nullptr) return;
  hxf_tool::BusMessage reply;
  int r = sd_bus_message_new_method_return(call_.get(), hxf_tool::Out(reply));
  if (r >= 0) r = hxf_tool::AppendProperties(reply.get(), properties);
  if (r >= 0) r = sd_bus_send(nullptr, reply.get(), nullptr);
  if (r < 0) sd_bus_reply_method_errno(call_.get(), r, nullptr);
  call_.reset();
}

void CPendingCall::ReplyError(const char* name, const std::string& text) {
  if (call_ == nullptr) return;
  // The message only: D-Bus clients show an error's message when it is its one argument.
  sd_bus_reply_method_errorf(call_.get(), name, "%s", text.c_str());
  call_.reset();
}

}  // namespace hxfd
