#include "CPlugin.h"

#include <dlfcn.h>

#include <chrono>
#include <functional>

#include "CApiCaller.h"
#include "CLibraryGate.h"
#include "CommonText.h"
#include "CoreGlobals.h"
#include "HXCALLTRACE_OBJ.h"
#include "JobFrame.h"
#include "TPLInvokers.h"

namespace HXFramework::Core {

using std::placeholders::_1;
using TPL::Direct;
using TPL::Pool;

namespace {
// A plugin job's standard-exception line ends in a blank line, as it always has.
constexpr const char* kPluginStdSuffix = "\n\n";
// How long Unload waits for a running job of the plugin (a "CreatePlugin" or a load
// callback) before it lets termination discard the unload.
constexpr auto kUnloadWait = std::chrono::seconds(20);
constexpr auto kCallbackDrainWait = std::chrono::seconds(5);

// The plugin whose job runs on this thread, if any.
thread_local const CPlugin* t_running_plugin = nullptr;

// Marks the calling thread as running a job of `plugin` for the job's duration.
class CRunningJob {
 public:
  explicit CRunningJob(const CPlugin* plugin) : previous_(t_running_plugin) {
    t_running_plugin = plugin;
  }
  ~CRunningJob() { t_running_plugin = previous_; }
  CRunningJob(const CRunningJob&) = delete;
  CRunningJob& operator=(const CRunningJob&) = delete;

 private:
  const CPlugin* previous_;
};

}  // namespace

std::shared_ptr<IPlugin> IPlugin::Create(const std::string& name, const std::string& path) {
  auto plugin = std::make_shared<CPlugin>(name, path);
  plugin->weak_this_ = plugin;
  return plugin;
}

CPlugin::CPlugin(const std::string& name, const std::string& path)
    : plugin_name_(name), plugin_path_(path) {}

CPlugin::~CPlugin() {
  HXLOG(DLOG_ERROR, "plugin destroyed: %s\n", plugin_name_.c_str());
}

void CPlugin::Init() {
  HXF_CALLTRACE_OBJ(this);
  Initiate(Direct());
}

void CPlugin::Termi() {
  HXF_CALLTRACE_OBJ(this);
  TerminateSync(Direct());
}

void CPlugin::Load(const PluginLoadHandler_t& handler) {
  HXF_CALLTRACE_OBJ(this);
  InvokeTask(std::bind(&CPlugin::_Load, _1, handler), Pool());
}

void CPlugin::Unload() {
  HXF_CALLTRACE_OBJ(this);
  // On an idle plugin the direct invoker runs the unload before InvokeTask returns. If a
  // job of this plugin is running on another thread, the unload is queued behind it.
  // Deliberately, it waits (bounded) for that job rather than return: the termination that
  // follows would otherwise discard the unload and leave the library open. A plugin
  // unloading itself from its own job cannot wait for itself.
  auto done = std::make_shared<TPL::CSynchronizer>();
  // Who asked, taken now: the unload may run on another thread.
  const void* requester = CApiCaller::ReturnAddress();
  InvokeTask(
      [done, requester](const std::shared_ptr<CPlugin>& self) {
        self->_Unload(requester);
        CMutexLock lock(done->mutex_);
        done->done_ = true;
        done->cond_.notify_all();
      },
      Direct());
  if (t_running_plugin == this) return;
  CMutexLock lock(done->mutex_);
  const auto deadline = std::chrono::steady_clock::now() + kUnloadWait;
  while (!done->done_ &&
         done->cond_.wait_until(lock.Native(), deadline) != std::cv_status::timeout) {
  }
  if (!done->done_)
    HXLOG(DLOG_ERROR, "plugin[%s] is busy, unload not done in time\n", plugin_name_.c_str());
}

void CPlugin::SendLoadResult(hxf_plugin_load_result_e result) {
  HXF_CALLTRACE_OBJ(this);
  InvokeTask(std::bind(&CPlugin::_SendLoadResult, _1, result), Pool());
}

std::string CPlugin::_GetFilePath() {
  HXF_CALLTRACE_OBJ(this);
  std::string path = plugin_path_.empty()
                         ? g_plugin_dir + g_plugin_prefix + plugin_name_ + g_plugin_suffix
                         : plugin_path_;
  HXLOG(DLOG_INFO, "path to load : %s(%zu)\n", path.c_str(), path.size());
  return path;
}

void CPlugin::_ReportLoadResult(hxf_plugin_load_result_e result) {
  loaded_cb_(AsCommonString(plugin_name_), result);
}

void CPlugin::_Load(const PluginLoadHandler_t& handler) {
  HXF_ASSERT_ON_OWN_CONTEXT();
  HXF_CALLTRACE_OBJ(this);
  CRunningJob running(this);
  loaded_cb_ = handler;
  HXLOG(DLOG_INFO, "plugin_name : %s, loaded_cb_ : %p\n", plugin_name_.c_str(),
        static_cast<void*>(&loaded_cb_));
  const bool loaded = RunLogged(
      HXF_LOG_SITE, OnException::kSwallow,
      [this] {
        _LoadDelegate();
        _InitLibrary();
      },
      kPluginStdSuffix);
  // On success the plugin reports its own result later, when it is ready.
  if (!loaded) _ReportLoadResult(HXF_PLUGIN_LOAD_RESULT_FAILED);
}

void CPlugin::_LoadDelegate() {
  HXF_CALLTRACE_OBJ(this);
  const std::string path = _GetFilePath();
  // A name with an embedded NUL names no file: never let dlopen see a shortened path.
  plugin_lib_ = path.find('\0') == std::string::npos ? dlopen(path.c_str(), RTLD_NOW) : nullptr;
  if (plugin_lib_ == nullptr) Fail("failed to load plugin : " + plugin_name_);
  // Both are resolved before either is checked; the library stays open on failure so that
  // a later unload can close it.
  create_fn_ = reinterpret_cast<EntryPoint>(dlsym(plugin_lib_, "CreatePlugin"));
  destroy_fn_ = reinterpret_cast<EntryPoint>(dlsym(plugin_lib_, "DestroyPlugin"));
  if (create_fn_ == nullptr) Fail("failed to load a CreatePlugin symbol !");
  if (destroy_fn_ == nullptr) Fail("failed to load a DestroyPlugin symbol !");
  gate_ = CLibraryGate::For(reinterpret_cast<const void*>(create_fn_));
}

void CPlugin::_InitLibrary() {
  HXF_CALLTRACE_OBJ(this);
  bool started = false;
  {
    CLibraryGate::CPass pass(gate_);
    started = create_fn_();
  }
  if (!started) Fail("failed to initialize plugin !");
  initialized_ = true;
}

void CPlugin::_Unload(const void* requester) {
  HXF_CALLTRACE_OBJ(this);
  CRunningJob running(this);
  loaded_cb_ = nullptr;  // the application is never told about an unload
  HXLOG(DLOG_INFO, "plugin_name : %s\n", plugin_name_.c_str());
  RunLogged(
      HXF_LOG_SITE, OnException::kSwallow,
      [this, requester] {
        _TermiLibrary();
        _UnloadDelegate(requester);
      },
      kPluginStdSuffix);
}

void CPlugin::_TermiLibrary() {
  HXF_CALLTRACE_OBJ(this);
  if (!initialized_) Fail("No plugin to destroy");
  bool stopped = false;
  {
    CLibraryGate::CPass pass(gate_);
    stopped = destroy_fn_();
  }
  if (!stopped) Fail("failed to finalize plugin !");
}

void CPlugin::_UnloadDelegate(const void* requester) {
  HXF_CALLTRACE_OBJ(this);
  if (plugin_lib_ == nullptr) Fail("plugin_lib_ is null. No opened plugin to unload");
  // No gate: "CreatePlugin" was never found, so none of the library's code ever ran.
  const CLibraryGate::Verdict verdict = gate_ != nullptr
                                            ? gate_->MayClose(requester, kCallbackDrainWait)
                                            : CLibraryGate::Verdict::kClose;
  if (verdict == CLibraryGate::Verdict::kCallerInside) {
    HXLOG(DLOG_ERROR, "plugin %s unloads itself: its library stays open\n", plugin_name_.c_str());
    plugin_lib_ = nullptr;
    return;
  }
  if (verdict == CLibraryGate::Verdict::kBusy) {
    HXLOG(DLOG_ERROR, "callbacks still running: library of %s left open\n", plugin_name_.c_str());
    plugin_lib_ = nullptr;
    return;
  }
  if (dlclose(plugin_lib_) != 0) Fail("dlclose error!");
  plugin_lib_ = nullptr;
}

void CPlugin::_SendLoadResult(hxf_plugin_load_result_e result) {
  HXF_ASSERT_ON_OWN_CONTEXT();
  HXF_CALLTRACE_OBJ(this);
  CRunningJob running(this);
  HXLOG(DLOG_INFO, "plugin_name : %s, loaded_cb_ : %p\n", plugin_name_.c_str(),
        static_cast<void*>(&loaded_cb_));
  if (!loaded_cb_) {
    HXLOG(DLOG_ERROR, "plugin callback is null!\n");
    return;
  }
  RunLogged(
      HXF_LOG_SITE, OnException::kSwallow, [&] { _ReportLoadResult(result); }, kPluginStdSuffix);
}

}  // namespace HXFramework::Core
