// Application identity stand-in: results are set by the test controls.
#include <cstdlib>
#include <cstring>
#include <optional>
#include <string>

#include "CLocks.h"
#include "hxf_host_platform.h"

namespace {

struct Lookup {
  int result = 0;
  std::optional<std::string> text;
};

struct Identity {
  Lookup name{0, std::string(HXF_HOST_DEFAULT_APP_NAME)};
  int package_result = 0;
  Lookup version{0, std::string(HXF_HOST_DEFAULT_APP_VERSION)};
};

HXFramework::CMutex g_mutex;
Identity g_identity HXF_GUARDED_BY(g_mutex);
int g_package_info;  // the handle's target; the platform owns it

int Produce(const Lookup& lookup, char** out) {
  if (out != nullptr && lookup.text) *out = strdup(lookup.text->c_str());
  return lookup.result;
}

Lookup MakeLookup(int result, const char* text) {
  Lookup lookup;
  lookup.result = result;
  if (text != nullptr) lookup.text = text;
  return lookup;
}

}  // namespace

extern "C" int app_get_name(char** name) {
  HXFramework::CMutexLock lock(g_mutex);
  return Produce(g_identity.name, name);
}

extern "C" int package_manager_get_package_info(const char* package_id,
                                                package_info_h* package_info) {
  HXFramework::CMutexLock lock(g_mutex);
  if (package_id == nullptr || package_info == nullptr) return -1;
  if (g_identity.package_result == 0) *package_info = &g_package_info;
  return g_identity.package_result;
}

extern "C" int package_info_get_version(package_info_h package_info, char** version) {
  HXFramework::CMutexLock lock(g_mutex);
  if (package_info == nullptr) return -1;
  return Produce(g_identity.version, version);
}

extern "C" void hxf_host_set_app_name(int result, const char* name) {
  HXFramework::CMutexLock lock(g_mutex);
  g_identity.name = MakeLookup(result, name);
}

extern "C" void hxf_host_set_package_info_result(int result) {
  HXFramework::CMutexLock lock(g_mutex);
  g_identity.package_result = result;
}

extern "C" void hxf_host_set_package_version(int result, const char* version) {
  HXFramework::CMutexLock lock(g_mutex);
  g_identity.version = MakeLookup(result, version);
}

extern "C" void hxf_host_reset_identity(void) {
  HXFramework::CMutexLock lock(g_mutex);
  g_identity = Identity{};
}
