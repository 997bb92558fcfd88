#include "CCallers.h"

#include <cerrno>
#include <cstring>

#include "BusValues.h"
#include "CBusContext.h"
#include "CSession.h"
#include "CWatch.h"

namespace hxfd {

using hxf_tool::ErrorName;

namespace {

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
  lists_.clear();
  requests_.clear();
  watches_.clear();
  sessions_.clear();
  direct_.clear();
  context_.Routes().Remove(token_);
  hxf_core_client_destroy(client_);  // its sessions end with it
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
  const hxf_error_e asked = hxf_core_client_get_device_list(
      client_, View(service), &CCoreRoutes::OnList, timeout_ms, CCoreRoutes::UserData(token_));
  if (asked != HXF_ERROR_NONE) return Refuse(error, ErrorName(asked), "cannot list " + service);
  lists_.emplace(service, CPendingCall(m, service));
  context_.Monitor().Event("search", name_, service, "", 0, [&](sd_bus_message* mm) {
    return sd_bus_message_append(mm, "a{sv}", 1, "device_list_timeout_ms", "u", timeout_ms);
  });
  return 1;  // answered by Listed
}

void CCaller::Listed(const ListEvent& event) {
  auto found = lists_.find(event.service);
  if (found == lists_.end()) return;
  CPendingCall call = std::move(found->second);
  lists_.erase(found);
  if (event.result == HXF_ENDPOINT_DISCOVERY_RESULT_TIMEOUT) {
    call.ReplyError(ErrorName(HXF_ERROR_TIMED_OUT),
                    "no device list for " + event.service + " in time");
  } else {
    call.ReplyDevices(event.devices);
  }
}

int CCaller::Subscribe(sd_bus_message* m, const std::string& service, sd_bus_error* error) {
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
  std::vector<hxf_tool::PropertyValue> properties;
  std::string problem;
  if ((r = hxf_tool::ReadProperties(m, &properties, &problem)) < 0)
    return problem.empty() ? r : Refuse(error, ErrorName(HXF_ERROR_INVALID_PARAMETER), problem);
  std::unique_ptr<void, void (*)(hxf_property_list_h)> list(
      hxf_tool::MakeList(operation, properties), &hxf_property_list_destroy);
  uint32_t timeout_ms = 0;
  if ((r = sd_bus_message_read(m, "u", &timeout_ms)) < 0) return r;
  if (!CallTimeoutFits(timeout_ms, error)) return -EINVAL;
  hxf_transaction_h transaction = nullptr;
  const hxf_error_e sent =
      hxf_core_client_request_service(client_, session.Handle(), list.get(), &CCoreRoutes::OnResult,
                                      timeout_ms, &transaction, CCoreRoutes::UserData(token_));
  if (sent != HXF_ERROR_NONE)
    return Refuse(error, ErrorName(sent), std::string("cannot send ") + operation);
  // The answer is handed to this thread, so it is handled after this entry exists.
  requests_.insert_or_assign(transaction, CPendingCall(m, session.Service(), operation));
  context_.Monitor().Event(
      "request", name_, session.Service(), operation, reinterpret_cast<uintptr_t>(transaction),
      [&](sd_bus_message* mm) { return hxf_tool::AppendProperties(mm, properties); });
  return 1;  // answered by Answered
}

bool CCaller::Answered(const AnswerEvent& event) {
  auto found = event.transaction != nullptr ? requests_.find(event.transaction) : requests_.end();
  if (found == requests_.end()) return false;
  CPendingCall call = std::move(found->second);
  requests_.erase(found);
  context_.Monitor().Event("result", name_, call.Service(), call.Operation(),
                           reinterpret_cast<uintptr_t>(event.transaction), [&](sd_bus_message* m) {
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
  context_.Monitor().Event("client-gone", name);
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
