// What check-plugin sees from the plugin's side. The hxf executable exports the service
// handler functions a plugin calls (CCheckProbe.cpp, CheckProbe.dynlist), so a plugin loaded
// into it reaches these first: they pass every call on to the core unchanged and, while the
// probe is on (only in check-plugin's child), time the plugin's callbacks and count its
// answers per transaction.
#pragma once

#include <chrono>
#include <cstdint>
#include <set>
#include <string>
#include <vector>

namespace hxf_tool {

struct ProbeSnapshot {
  // The longest callback that has returned, and the longest one still running (its kind:
  // "search", "search stop", "device list", "listen", "listen stop", "request").
  std::chrono::milliseconds longest{0};
  std::string longest_kind;
  std::chrono::milliseconds longest_running{0};
  std::string longest_running_kind;
  int64_t callbacks = 0;
  // Requests the plugin's request callback received, and answers (results, and
  // notifications naming a transaction) per transaction, in the order requests came.
  std::vector<uint64_t> requests;
  std::vector<int> answers;  // answers[i] for requests[i]
  int stray_answers = 0;     // answers to a transaction no request of this probe named
  std::set<std::string> subscribed;         // services the plugin subscribed its handlers to
  std::set<std::string> answered_services;  // service names its answers and notifications used
};

// Turns the probe on (and forgets what it saw) or off.
void ProbeEnable(bool on);
// Forgets the requests and answers seen so far (not the subscriptions).
void ProbeResetRequests();
// Forgets the callback timings seen so far.
void ProbeResetTimings();
ProbeSnapshot ProbeRead();

}  // namespace hxf_tool
