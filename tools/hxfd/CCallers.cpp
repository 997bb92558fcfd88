#include "CCallers.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>

#include "BusValues.h"
#include "CBusContext.h"
#include "CSession.h"
#include "CWatch.h"

namespace hxfd {

using hxf_tool::ErrorName;

namespace {

// The core answers at the time-out; the grace is for a core or provider that never does (or
// a busy loop), within the caller's own 25 s.
uint64_t GraceMs(uint32_t timeout_ms) {
  return std::min<uint64_t>(1000, std::max<int64_t>(50, int64_t{kCallTimeoutMs} - 100 - timeout_ms));
}

std::string ErrorText(const std::vector<hxf_tool::PropertyValue>& properties, int code) {
  for (const hxf_tool::PropertyValue& p : properties) {
    if (p.name == "error" && p.value.is_string()) return p.value.get<std::string>();
  }
  return std::string("the request failed with ") + ErrorName(code);
}

}  // namespace

// ---- one caller ----

CCaller::CCaller(CBusContext& context, std::string name, hxf_client_h client)
    : context_(context), name_(std::move(name)), client_(client) {
  token_ = context_.Routes().Add(this);
}

CCaller::~CCaller() {
  context_.Routes().AssertBusThread();
  context_.Monitor().Remove(name_);
  // Calls still waiting get no answer: their caller is gone.
  for (const auto& list : lists_) EndList(list.first);
  lists_.clear();
  requests_.clear();
  watches_.clear();
  sessions_.clear();
  direct_.clear();
  context_.Routes().Remove(token_);
  DestroyAfterQueuedWork(client_);  // after the lists' stops; its sessions end with it
}

bool CCaller::Owns(sd_bus_message* m, sd_bus_error* error) const {
  const char* sender = sd_bus_message_get_sender(m);
  if (sender != nullptr && name_ == sender) return true;
  Refuse(error, SD_BUS_ERROR_ACCESS_DENIED,
         std::string(sd_bus_message_get_path(m)) + " belongs to another caller");
  return false;
}

int CCaller::StartWatch(sd_bus_message* m, const std::string& service, bool listen,
                        uint32_t timeout_ms, sd_bus_error* error) {
  for (const auto& [path, watch] : watches_) {
    if (watch->Service() == service && watch->Listen() == listen)
      return Refuse(error, hxf_tool::kErrorInProgress,
                    std::string(listen ? "already listening to " : "already searching ") + service +
                        " (" + path + ")");
  }
  if (watches_.size() >= context_.Limit().watches)
    return RefuseLimit(error, "this caller already has " + std::to_string(watches_.size()) + " searches and listens", "max-watches-per-caller");
  int r = 0;
  std::unique_ptr<CWatch> watch =
      CWatch::Start(context_, *this, service, listen, timeout_ms, error, &r);
  if (watch == nullptr) return r;
  const std::string path = watch->Path();
  watches_.emplace(path, std::move(watch));
  return sd_bus_reply_method_return(m, "o", path.c_str());
}

void CCaller::EndWatch(std::string path) {
  watches_.erase(path);
}

int CCaller::GetDevices(sd_bus_message* m, const std::string& service, uint32_t timeout_ms,
                        sd_bus_error* error) {
  if (lists_.count(service) != 0)
    return Refuse(error, hxf_tool::kErrorInProgress,
                  "a device list of " + service + " is already on its way");
  if (!PendingFits(error)) return -EINVAL;
  const hxf_error_e asked = hxf_core_client_get_device_list(
      client_, View(service), &CCoreRoutes::OnList, timeout_ms, CCoreRoutes::UserData(token_));
  if (asked != HXF_ERROR_NONE) return Refuse(error, ErrorName(asked), "cannot list " + service);
  // With several providers each answers with a list of its own: they are merged until every
  // provider has answered, or until the time-out (one without devices never answers).
  const bool several = context_.Devices().Several(service);
  List& list = lists_
                   .emplace(service, List{CPendingCall(m, service),
                                          hxf_tool::CProviderLists(
                                              several ? context_.Devices().ProvidersOf(service)
                                                      : std::vector<std::string>())})
                   .first->second;
  context_.Searches().Begin(service, false);
  Arm(list.call, (timeout_ms + (several ? 0 : GraceMs(timeout_ms))) * 1000ULL,
      Deadline{service, nullptr});
  context_.Monitor().Event(hxf_tool::MonitorType::kSearch, name_, service, "", 0,
                           [&](sd_bus_message* mm) {
                             return sd_bus_message_append(mm, "a{sv}", 1, "device_list_timeout_ms",
                                                          "u", timeout_ms);
                           });
  return 1;  // answered by Listed
}

void CCaller::Listed(const ListEvent& event) {
  auto found = lists_.find(event.service);
  // The core's time-out is left to the list's own deadline (Expire): it may be another
  // caller's, or an earlier list's of this caller.
  if (found == lists_.end() || event.result == HXF_ENDPOINT_DISCOVERY_RESULT_TIMEOUT) return;
  context_.Devices().Listed(event.service, event.devices);
  found->second.lists.Add(event.devices);
  if (!found->second.lists.Complete()) return;
  List list = std::move(found->second);
  lists_.erase(found);
  Disarm(list.call);
  EndList(event.service);
  list.call.ReplyDevices(list.lists.Devices());
}

void CCaller::EndList(const std::string& service) {
  if (context_.Searches().End(service, false, false))
    hxf_core_client_stop_active_search(client_, View(service));
}

void CCaller::Arm(CPendingCall& call, uint64_t after_us, Deadline what) {
  // The clock now, not the loop's iteration's: a busy iteration would cut the time-out short.
  timespec ts{};
  clock_gettime(CLOCK_MONOTONIC, &ts);
  const uint64_t now = static_cast<uint64_t>(ts.tv_sec) * 1000000ULL + static_cast<uint64_t>(ts.tv_nsec) / 1000;
  const CPendingCall::DeadlineKey key{now + after_us, next_deadline_++};
  call.SetDeadline(key);
  deadlines_.emplace(key, std::move(what));
  if (deadlines_.begin()->first != key) return;  // an earlier one is armed
  constexpr uint64_t kAccuracyUs = 1000;
  if (deadline_timer_ == nullptr) {
    sd_event_add_time(context_.Event(), hxf_tool::Out(deadline_timer_), CLOCK_MONOTONIC,
                      key.first, kAccuracyUs, &CCaller::OnDeadline, this);
  } else {
    sd_event_source_set_time(deadline_timer_.get(), key.first);
    sd_event_source_set_enabled(deadline_timer_.get(), SD_EVENT_ONESHOT);
  }
}

int CCaller::OnDeadline(sd_event_source*, uint64_t, void* self) {
  static_cast<CCaller*>(self)->Expire();
  return 0;
}

void CCaller::Expire() {
  uint64_t now = 0;
  sd_event_now(context_.Event(), CLOCK_MONOTONIC, &now);
  while (!deadlines_.empty() && deadlines_.begin()->first.first <= now) {
    const CPendingCall::DeadlineKey key = deadlines_.begin()->first;
    const Deadline what = std::move(deadlines_.begin()->second);
    deadlines_.erase(deadlines_.begin());
    if (what.transaction == nullptr) {
      const auto found = lists_.find(what.service);
      if (found == lists_.end() || found->second.call.Deadline() != key) continue;
      List list = std::move(found->second);
      lists_.erase(found);
      EndList(what.service);
      // The providers that answered in time make the list.
      const std::vector<hxf_tool::Device> devices = list.lists.Devices();
      if (!devices.empty())
        list.call.ReplyDevices(devices);
      else
        list.call.ReplyError(ErrorName(HXF_ERROR_TIMED_OUT),
                             "no device list for " + what.service + " in time");
    } else {
      const auto found = requests_.find(what.transaction);
      if (found == requests_.end() || found->second.Deadline() != key) continue;
      CPendingCall call = std::move(found->second);
      requests_.erase(found);
      call.ReplyError(ErrorName(HXF_ERROR_TIMED_OUT),
                      "no answer to " + call.Operation() + " in time (the provider never answered)");
    }
  }
  if (!deadlines_.empty()) {
    sd_event_source_set_time(deadline_timer_.get(), deadlines_.begin()->first.first);
    sd_event_source_set_enabled(deadline_timer_.get(), SD_EVENT_ONESHOT);
  }
}

bool CCaller::PendingFits(sd_bus_error* error) const {
  if (Pending() < context_.Limit().pending) return true;
  RefuseLimit(error, "this caller already waits for " + std::to_string(Pending()) + " answers", "max-pending-per-caller");
  return false;
}

bool CCaller::PropertiesFit(const std::vector<hxf_tool::PropertyValue>& properties,
                            sd_bus_error* error) const {
  const Limits& limits = context_.Limit();
  uint64_t total = 0;
  for (const hxf_tool::PropertyValue& p : properties) {
    if (!context_.NameFits("the property name", p.name, error)) return false;
    total += p.name.size();
    if (p.value.is_string()) {
      const std::string& text = p.value.get_ref<const std::string&>();
      if (text.size() > limits.text_bytes) {
        RefuseLimit(error, "the value of " + Quoted(p.name) + " is longer than " + std::to_string(limits.text_bytes) + " bytes", "max-text-bytes");
        return false;
      }
      total += text.size();
    } else {
      total += 8;
    }
  }
  if (total <= limits.request_bytes) return true;
  RefuseLimit(error, "the request's properties take " + std::to_string(total) + " bytes, more than " + std::to_string(limits.request_bytes), "max-request-bytes");
  return false;
}

bool CCaller::SessionFits(sd_bus_error* error) const {
  if (Sessions() < context_.Limit().sessions) return true;
  RefuseLimit(error, "this caller already has " + std::to_string(Sessions()) + " sessions", "max-sessions-per-caller");
  return false;
}

int CCaller::Subscribe(sd_bus_message* m, const std::string& service, sd_bus_error* error) {
  if (!SessionFits(error)) return -EINVAL;
  int r = 0;
  std::unique_ptr<CSession> session = CSession::Make(context_, *this, service, true, error, &r);
  if (session == nullptr) return r;
  const std::string path = session->Path();
  sessions_.emplace(path, std::move(session));
  return sd_bus_reply_method_return(m, "o", path.c_str());
}

void CCaller::EndSession(std::string path) {
  sessions_.erase(path);
}

int CCaller::DirectRequest(sd_bus_message* m, const std::string& service, sd_bus_error* error) {
  // One session per caller and service, made on first use and kept while the caller is on
  // the bus; it has no object, so its notifications go nowhere.
  std::unique_ptr<CSession>& session = direct_[service];
  if (session == nullptr) {
    if (!SessionFits(error)) {
      direct_.erase(service);
      return -EINVAL;
    }
    int r = 0;
    session = CSession::Make(context_, *this, service, false, error, &r);
    if (session == nullptr) {
      direct_.erase(service);
      return r;
    }
  }
  return SendRequest(m, *session, error);
}

int CCaller::SendRequest(sd_bus_message* m, const CSession& session, sd_bus_error* error) {
  const char* operation = nullptr;
  int r = sd_bus_message_read(m, "s", &operation);
  if (r < 0) return r;
  if (*operation == '\0')
    return Refuse(error, ErrorName(HXF_ERROR_INVALID_PARAMETER), "the operation is empty");
  if (!context_.NameFits("the operation", operation, error)) return -EINVAL;
  if (!PendingFits(error)) return -EINVAL;
  Request request;
  request.operation = operation;
  std::string problem;
  if ((r = hxf_tool::ReadProperties(m, &request.properties, &problem)) < 0)
    return problem.empty() ? r : Refuse(error, ErrorName(HXF_ERROR_INVALID_PARAMETER), problem);
  if (!PropertiesFit(request.properties, error)) return -EINVAL;
  if ((r = sd_bus_message_read(m, "u", &request.timeout_ms)) < 0) return r;
  if (!CallTimeoutFits(request.timeout_ms, error)) return -EINVAL;
  for (const hxf_tool::PropertyValue& p : request.properties) {
    if (p.name == "device_id" && p.value.is_string()) request.device_id = p.value.get<std::string>();
  }
  request.call = hxf_tool::Hold(m);
  request.session_path = session.Path();
  request.service = session.Service();
  return Route(std::move(request), session, true, error);
}

int CCaller::Route(Request request, const CSession& session, bool may_wait, sd_bus_error* error) {
  std::string provider;
  const uint64_t id = next_waiting_;
  CBusContext& context = context_;
  const auto resume = [&context, name = name_, id] {
    if (CCaller* caller = context.Callers().Find(name)) caller->Resume(id);
  };
  switch (context_.Devices().Find(request.service, request.device_id, may_wait, resume, &provider,
                                  error)) {
    case CDeviceRoutes::Route::kConflict:
      return -EINVAL;
    case CDeviceRoutes::Route::kWait:
      ++next_waiting_;
      waiting_.emplace(id, std::move(request));
      return 1;  // sent by Resume
    case CDeviceRoutes::Route::kReady:
      break;
  }
  std::unique_ptr<void, void (*)(hxf_property_list_h)> list(
      hxf_tool::MakeList(request.operation, request.properties), &hxf_property_list_destroy);
  hxf_transaction_h transaction = nullptr;
  const hxf_error_e sent = hxf_core_client_request_service(
      client_, session.Handle(provider), list.get(), &CCoreRoutes::OnResult, request.timeout_ms,
      &transaction, CCoreRoutes::UserData(token_));
  if (sent != HXF_ERROR_NONE)
    return Refuse(error, ErrorName(sent), "cannot send " + request.operation);
  // The answer is handed to this thread, so it is handled after this entry exists.
  CPendingCall& call =
      requests_
          .insert_or_assign(transaction, CPendingCall(request.call.get(), request.service,
                                                      request.operation))
          .first->second;
  Arm(call, (request.timeout_ms + GraceMs(request.timeout_ms)) * 1000ULL,
      Deadline{"", transaction});
  context_.Monitor().Event(
      hxf_tool::MonitorType::kRequest, name_, request.service, request.operation,
      reinterpret_cast<uintptr_t>(transaction),
      [&](sd_bus_message* mm) { return hxf_tool::AppendProperties(mm, request.properties); });
  return 1;  // answered by Answered
}

void CCaller::Resume(uint64_t id) {
  const auto found = waiting_.find(id);
  if (found == waiting_.end()) return;
  Request request = std::move(found->second);
  waiting_.erase(found);
  const hxf_tool::BusMessage call = hxf_tool::Hold(request.call.get());
  const CSession* session = nullptr;
  if (request.session_path.empty()) {
    const auto direct = direct_.find(request.service);
    if (direct != direct_.end()) session = direct->second.get();
  } else {
    const auto own = sessions_.find(request.session_path);
    if (own != sessions_.end()) session = own->second.get();
  }
  sd_bus_error error = SD_BUS_ERROR_NULL;
  const int r = session == nullptr
                    ? Refuse(&error, ErrorName(HXF_ERROR_NOT_FOUND),
                             request.session_path + " was closed before its request went out")
                    : Route(std::move(request), *session, false, &error);
  if (r < 0) {
    if (!sd_bus_error_is_set(&error)) sd_bus_error_set_errno(&error, r);
    sd_bus_reply_method_error(call.get(), &error);
  }
  sd_bus_error_free(&error);
}

bool CCaller::Answered(const AnswerEvent& event) {
  auto found = event.transaction != nullptr ? requests_.find(event.transaction) : requests_.end();
  if (found == requests_.end()) return false;
  CPendingCall call = std::move(found->second);
  requests_.erase(found);
  Disarm(call);
  context_.Monitor().Event(hxf_tool::MonitorType::kResult, name_, call.Service(),
                           call.Operation(), reinterpret_cast<uintptr_t>(event.transaction),
                           [&](sd_bus_message* m) {
                             return hxf_tool::AppendProperties(m, event.properties);
                           });
  if (event.error != HXF_ERROR_NONE) {
    call.ReplyError(ErrorName(event.error), event.error == HXF_ERROR_TIMED_OUT
                                                ? "no answer to " + call.Operation() + " in time"
                                                : ErrorText(event.properties, event.error));
  } else {
    call.ReplyProperties(event.properties);
  }
  return true;
}

// ---- every caller ----

int CCallers::Start() {
  // Departures only (no new owner), of every name: one rule, however many callers.
  return sd_bus_add_match(context_.Bus(), hxf_tool::Out(departures_),
                          "type='signal',sender='org.freedesktop.DBus',"
                          "path='/org/freedesktop/DBus',interface='org.freedesktop.DBus',"
                          "member='NameOwnerChanged',arg2=''",
                          &CCallers::OnNameOwnerChanged, this);
}

void CCallers::Stop() {
  callers_.clear();
  departures_.reset();
}

CCaller* CCallers::Find(const std::string& name) {
  const auto found = callers_.find(name);
  return found != callers_.end() ? found->second.get() : nullptr;
}

CCaller* CCallers::Of(sd_bus_message* m, sd_bus_error* error) {
  context_.Routes().AssertBusThread();
  const char* sender = sd_bus_message_get_sender(m);
  if (sender == nullptr) {
    Refuse(error, ErrorName(HXF_ERROR_INVALID_CLIENT), "the call has no sender");
    return nullptr;
  }
  if (CCaller* known = Find(sender)) return known;
  const hxf_client_h client = hxf_core_client_create(View(sender));
  if (client == nullptr) {
    Refuse(error, ErrorName(HXF_ERROR_CREATE_FAILED), std::string("no client for ") + sender);
    return nullptr;
  }
  auto caller = std::make_unique<CCaller>(context_, sender, client);
  return callers_.emplace(sender, std::move(caller)).first->second.get();
}

void CCallers::Forget(const std::string& name) {
  const auto found = callers_.find(name);
  if (found == callers_.end()) return;
  context_.Monitor().Event(hxf_tool::MonitorType::kClientGone, name);
  const std::unique_ptr<CCaller> caller = std::move(found->second);
  callers_.erase(found);
}

int CCallers::OnNameOwnerChanged(sd_bus_message* m, void* self, sd_bus_error*) {
  const char* name = nullptr;
  const char* old_owner = nullptr;
  const char* new_owner = nullptr;
  if (sd_bus_message_read(m, "sss", &name, &old_owner, &new_owner) < 0) return 0;
  if (new_owner != nullptr && *new_owner != '\0') return 0;
  static_cast<CCallers*>(self)->Forget(name);
  return 0;
}

}  // namespace hxfd
