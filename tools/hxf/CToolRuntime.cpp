#include "CToolRuntime.h"

#include <chrono>

#include "CCoreBroker.h"
#include "hxf_host_platform.h"
#ifdef HXF_TOOL_BUS
#include "CBusClient.h"
#endif

namespace hxf_tool {

namespace {

CToolRuntime* Self(void* user_data) {
  return static_cast<CToolRuntime*>(user_data);
}

}  // namespace

void CToolRuntime::OnLog(int priority, const char* tag, const char* text, void* self) {
  if (!ShowLogLine(priority, tag, Self(self)->log_threshold_)) return;
  Self(self)->out_.Log(LogLine(priority, tag, text, std::chrono::system_clock::now()));
}

CToolRuntime::CToolRuntime(const std::string& log_level, const COutput& out)
    : log_threshold_(LogThreshold(log_level)), out_(out) {
  hxf_host_log_set_sink(&CToolRuntime::OnLog, this);
}

CToolRuntime::~CToolRuntime() {
  Close();
  hxf_host_log_set_sink(nullptr, nullptr);
}

bool CToolRuntime::Open(const std::vector<std::string>& plugins) {
  auto core = std::make_unique<CCoreBroker>(events_, out_);
  const bool opened = core->Open(plugins);
  broker_ = std::move(core);  // also when it failed: Close undoes what was done
  return opened;
}

bool CToolRuntime::OpenBus(const std::string& where) {
#ifdef HXF_TOOL_BUS
  auto bus = std::make_unique<CBusClient>(events_, out_);
  const bool opened = bus->Open(where);
  broker_ = std::move(bus);
  return opened;
#else
  out_.Fail("this hxf was built without D-Bus (libsystemd-dev): --bus " + where +
            " is not available");
  return false;
#endif
}

void CToolRuntime::Close() {
  broker_.reset();
}

}  // namespace hxf_tool
