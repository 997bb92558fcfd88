#include "CSession.h"

#include <cerrno>

#include "BusValues.h"
#include "CBusContext.h"
#include "Provider.h"

namespace hxfd {

namespace {

const sd_bus_vtable kSessionVtable[] = {
    SD_BUS_VTABLE_START(0),
    SD_BUS_METHOD_WITH_NAMES(
        "Request", "sa{sv}u",
        SD_BUS_PARAM(operation) SD_BUS_PARAM(properties) SD_BUS_PARAM(timeout_ms), "a{sv}",
        SD_BUS_PARAM(result), &CSession::OnRequest, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD("Close", "", "", &CSession::OnClose, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_SIGNAL_WITH_NAMES("Notification", "sa{sv}u",
                             SD_BUS_PARAM(operation) SD_BUS_PARAM(properties) SD_BUS_PARAM(error),
                             0),
    SD_BUS_VTABLE_END};

}  // namespace

const sd_bus_vtable* CSession::Vtable() { return kSessionVtable; }

CSession::CSession(CBusContext& context, CCaller& caller, std::string service)
    : context_(context), caller_(caller), service_(std::move(service)) {}

std::unique_ptr<CSession> CSession::Make(CBusContext& context, CCaller& caller,
                                         const std::string& service, bool with_object,
                                         sd_bus_error* error, int* r) {
  std::unique_ptr<CSession> session(new CSession(context, caller, service));
  session->token_ = context.Routes().Add(session.get());
  const auto subscribe = [&](const std::string& name) {
    return hxf_core_client_subscribe_service(caller.Client(), View(name),
                                             &CCoreRoutes::OnNotification,
                                             CCoreRoutes::UserData(session->token_));
  };
  // Several providers: one session each, the first also the service's pick. A provider that
  // does not answer "S@PROVIDER" is reached through S only, as before.
  bool each_reached = true;
  if (context.Devices().Several(service)) {
    for (const std::string& provider : context.Devices().ProvidersOf(service)) {
      hxf_service_session_h handle = subscribe(hxf_tool::ProviderService(service, provider));
      if (handle != nullptr)
        session->providers_.emplace_back(provider, handle);
      else
        each_reached = false;
    }
  }
  session->handle_ = each_reached && !session->providers_.empty()
                         ? session->providers_.front().second
                         : subscribe(session->service_);
  if (session->handle_ == nullptr) {
    *r = Refuse(error, hxf_tool::ErrorName(HXF_ERROR_NOT_FOUND),
                "no provider offers " + service + " (is its plugin loaded?)");
    return nullptr;
  }
  if (with_object) {
    session->path_ = context.NewPath("session");
    session->object_ = context.Objects().Add(session->path_, caller.Name(), session.get());
  }
  return session;
}

CSession::~CSession() {
  context_.Routes().Remove(token_);
}

hxf_service_session_h CSession::Handle(const std::string& provider) const {
  if (provider.empty()) return handle_;
  for (const auto& [name, handle] : providers_) {
    if (name == provider) return handle;
  }
  return handle_;
}

void CSession::Notified(const AnswerEvent& event) {
  // A notification naming a request answers it (the core sends that request no result).
  if (event.transaction != nullptr && caller_.Answered(event)) return;
  if (path_.empty()) return;
  SendTo(context_.Bus(), caller_.Name(), path_, hxf_tool::kSessionInterface, "Notification",
         [&](sd_bus_message* m) {
           int r = sd_bus_message_append(m, "s", event.operation.c_str());
           if (r >= 0) r = hxf_tool::AppendProperties(m, event.properties);
           return r < 0 ? r : sd_bus_message_append(m, "u", static_cast<uint32_t>(event.error));
         });
  context_.Monitor().Event(hxf_tool::MonitorType::kNotification, caller_.Name(), service_,
                           event.operation, reinterpret_cast<uintptr_t>(event.transaction),
                           [&](sd_bus_message* m) {
                             return hxf_tool::AppendProperties(m, event.properties);
                           });
}

int CSession::OnRequest(sd_bus_message* m, void* self, sd_bus_error* error) {
  auto* session = static_cast<CSession*>(self);
  if (!session->caller_.Owns(m, error)) return -EACCES;
  return session->caller_.SendRequest(m, *session, error);
}

int CSession::OnClose(sd_bus_message* m, void* self, sd_bus_error* error) {
  auto* session = static_cast<CSession*>(self);
  if (!session->caller_.Owns(m, error)) return -EACCES;
  const int r = sd_bus_reply_method_return(m, "");
  session->caller_.EndSession(session->path_);  // destroys this
  return r;
}

}  // namespace hxfd
