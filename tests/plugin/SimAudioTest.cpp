// The simulator's speakers through the public API: the "audio" service's words
// (tools/common/AudioVocabulary.h), the same answers and refusals as the UPnP plugin's media
// renderers give, the state notified on every change, and the speakers' own behaviours (the
// slow soundbar, the radio that never answers, media that ends).
#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <string>

#include <unistd.h>

#include "EventLog.h"
#include "Eventually.h"
#include "SimShared.h"
#include "Str.h"
#include "hxf_core.h"

using HXFramework::Test::EventLog;
using HXFramework::Test::Eventually;
using HXFramework::Test::RefusedAs;
using HXFramework::Test::Render;
using HXFramework::Test::Str;

namespace {

constexpr const char* kUri = "http://169.254.77.1:8765/tone.wav";

// Writes `content` as the simulator's configuration for the next load (empty: the default
// home).
void Configure(const std::string& content) {
  if (content.empty()) {
    unsetenv("HXF_SIM_CONFIG");
    return;
  }
  // One file per process: ctest runs these tests in parallel processes.
  const std::string path =
      ::testing::TempDir() + "sim-audio-" + std::to_string(getpid()) + ".json";
  std::ofstream(path) << content;
  setenv("HXF_SIM_CONFIG", path.c_str(), 1);
}

class SimAudio : public ::testing::Test {
 protected:
  static void OnLoaded(hxf_string, hxf_plugin_load_result_e result, void* ud) {
    static_cast<EventLog*>(ud)->Add("loaded " + std::to_string(result));
  }
  static void OnResult(hxf_client_h, hxf_service_session_h, hxf_property_list_h list,
                       hxf_transaction_h, hxf_error_e error, void* ud) {
    static_cast<EventLog*>(ud)->Add("result " + std::to_string(error) + " " + Render(list));
  }
  static void OnNotify(hxf_string, hxf_service_session_h, hxf_property_list_h list,
                       hxf_transaction_h, hxf_error_e, void* ud) {
    static_cast<EventLog*>(ud)->Add("notify " + Render(list));
  }

  // Loads the simulator with `config` (empty: the default home) and subscribes to audio.
  void Load(const std::string& config = "") {
    Configure(config);
    hxf_core_initialize();
    ASSERT_EQ(hxf_core_plugin_load(Str("sim"), &OnLoaded, &loaded_), HXF_ERROR_NONE);
    ASSERT_TRUE(loaded_.WaitCount("loaded 0", 1));
    Configure("");
    client_ = hxf_core_client_create(Str("test"));
    session_ = hxf_core_client_subscribe_service(client_, Str("audio"), &OnNotify, &events_);
    ASSERT_NE(session_, nullptr);
  }
  void TearDown() override {
    if (client_ == nullptr) return;
    hxf_core_client_destroy(client_);
    hxf_core_plugin_unload_all();
    hxf_core_finalize();
  }

  // Sends `operation` to `device` with the properties given and waits for its result, which
  // it returns ("result CODE LIST"); "none" when none came within `timeout` and a second.
  std::string Ask(const char* device, const char* operation,
                  std::initializer_list<hxf_property_h> properties = {},
                  uint32_t timeout = 5000) {
    hxf_property_list_h list = hxf_property_list_create(Str(operation));
    hxf_property_h id = hxf_property_create_string(Str("device_id"), Str(device));
    hxf_property_list_push_property(list, id, HXF_ERROR_NONE);
    hxf_property_destroy(id);
    for (hxf_property_h p : properties) {
      hxf_property_list_push_property(list, p, HXF_ERROR_NONE);
      hxf_property_destroy(p);
    }
    const int before = events_.CountPrefix("result ");
    hxf_transaction_h transaction = nullptr;
    hxf_core_client_request_service(client_, session_, list, &OnResult, timeout, &transaction,
                                    &events_);
    hxf_property_list_destroy(list);
    if (!events_.WaitPrefix("result ", before + 1)) return "none";
    std::string last;
    for (const std::string& event : events_.Get()) {
      if (event.rfind("result ", 0) == 0) last = event;
    }
    return last;
  }
  static hxf_property_h Int(const char* name, int64_t value) {
    return hxf_property_create_int(Str(name), value);
  }
  static hxf_property_h Text(const char* name, const char* value) {
    return hxf_property_create_string(Str(name), Str(value));
  }

  EventLog loaded_;
  EventLog events_;
  hxf_client_h client_ = nullptr;
  hxf_service_session_h session_ = nullptr;
};

}  // namespace

// The speakers have the audio words and nothing else (no power, no input): nothing loaded is
// no_media at position 0 of a duration of 0, as a renderer without media answers.
TEST_F(SimAudio, ASpeakerAnswersTheAudioWordsOnly) {
  Load();
  EXPECT_EQ(Ask("speaker-1", "get"),
            "result 0 get device_id=speaker-1 volume=25 muted=false transport_state=no_media "
            "position=0 duration=0");
  EXPECT_EQ(Ask("soundbar-1", "get"),
            "result 0 get device_id=soundbar-1 volume=40 muted=false transport_state=no_media "
            "position=0 duration=0");
}

// Every operation answers the state after it under its own name; each change is notified as
// "state", without the position (a running clock only answers carry).
TEST_F(SimAudio, EveryOperationAnswersTheStateAfterItAndNotifiesTheChange) {
  Load();
  const std::string loaded = std::string(" uri=") + kUri;
  EXPECT_EQ(Ask("speaker-1", "set", {Int("volume", 30), hxf_property_create_bool(Str("muted"), false)}),
            "result 0 set device_id=speaker-1 volume=30 muted=false transport_state=no_media "
            "position=0 duration=0");
  EXPECT_TRUE(events_.WaitCount(
      "notify state device_id=speaker-1 volume=30 muted=false transport_state=no_media duration=0",
      1));
  EXPECT_EQ(Ask("speaker-1", "play", {Text("uri", kUri)}),
            "result 0 play device_id=speaker-1 volume=30 muted=false transport_state=playing" +
                loaded + " position=0 duration=180");
  EXPECT_TRUE(events_.WaitCount("notify state device_id=speaker-1 volume=30 muted=false "
                                "transport_state=playing" + loaded + " duration=180", 1));
  const std::string paused = Ask("speaker-1", "pause");
  EXPECT_EQ(paused.rfind("result 0 pause device_id=speaker-1 volume=30 muted=false "
                         "transport_state=paused" + loaded + " position=", 0), 0u) << paused;
  EXPECT_TRUE(events_.WaitCount("notify state device_id=speaker-1 volume=30 muted=false "
                                "transport_state=paused" + loaded + " duration=180", 1));
  EXPECT_EQ(Ask("speaker-1", "stop"),
            "result 0 stop device_id=speaker-1 volume=30 muted=false transport_state=stopped" +
                loaded + " position=0 duration=180");
  EXPECT_TRUE(events_.WaitCount("notify state device_id=speaker-1 volume=30 muted=false "
                                "transport_state=stopped" + loaded + " duration=180", 1));
  // A seek while stopped moves the position; play goes on from there.
  EXPECT_EQ(Ask("speaker-1", "seek", {Int("position", 90)}),
            "result 0 seek device_id=speaker-1 volume=30 muted=false transport_state=stopped" +
                loaded + " position=90 duration=180");
  EXPECT_EQ(Ask("speaker-1", "play"),
            "result 0 play device_id=speaker-1 volume=30 muted=false transport_state=playing" +
                loaded + " position=90 duration=180");
  EXPECT_EQ(Ask("speaker-1", "seek", {Int("position", 180)}),
            "result 0 seek device_id=speaker-1 volume=30 muted=false transport_state=playing" +
                loaded + " position=180 duration=180");
  // ...which is the end of the media: the speaker stops there, at position 0, and says so.
  EXPECT_TRUE(events_.WaitCount("notify state device_id=speaker-1 volume=30 muted=false "
                                "transport_state=stopped" + loaded + " duration=180", 2));
  // A get changes nothing and tells nobody.
  const int notified = events_.CountPrefix("notify ");
  EXPECT_EQ(Ask("speaker-1", "get"),
            "result 0 get device_id=speaker-1 volume=30 muted=false transport_state=stopped" +
                loaded + " position=0 duration=180");
  EXPECT_EQ(events_.CountPrefix("notify "), notified);
}

// The refusals of the shared check, word for word as the renderers give them
// (HXF_ERROR_INVALID_PARAMETER, error 4): nothing changes and nobody is told.
TEST_F(SimAudio, ABadRequestIsRefusedWithTheRenderersWordsAndChangesNothing) {
  Load();
  EXPECT_EQ(Ask("speaker-1", "set", {Int("volume", 150)}),
            "result 4 set error=volume 150 is out of range 0..100");
  EXPECT_EQ(Ask("speaker-1", "set", {Int("muted", 1)}), "result 4 set error=muted takes a bool");
  EXPECT_EQ(Ask("speaker-1", "set"), "result 4 set error=nothing to set (volume, muted)");
  EXPECT_EQ(Ask("speaker-1", "set", {hxf_property_create_bool(Str("power"), false)}),
            "result 4 set error=unknown property power for set (volume, muted)");
  EXPECT_EQ(Ask("speaker-1", "seek"), "result 4 seek error=seek needs position (seconds)");
  EXPECT_EQ(Ask("speaker-1", "seek", {Int("position", -1)}),
            "result 4 seek error=position -1 is out of range 0..359999");
  EXPECT_EQ(Ask("speaker-1", "play", {Text("uri", "")}),
            "result 4 play error=uri must have 1 to 2048 bytes");
  EXPECT_EQ(Ask("speaker-1", "rewind"),
            "result 4 rewind error=unknown operation rewind (get, set, play, pause, stop or seek)");
  EXPECT_EQ(Ask("speaker-1", "get"),
            "result 0 get device_id=speaker-1 volume=25 muted=false transport_state=no_media "
            "position=0 duration=0");
  EXPECT_EQ(events_.CountPrefix("notify "), 0);
}

// What the speaker cannot do in its state is its own refusal (HXF_ERROR_OPERATION_FAILED,
// error 2), as a renderer refuses a pause while stopped.
TEST_F(SimAudio, WhatTheSpeakerCannotDoNowIsItsOwnRefusal) {
  Load();
  EXPECT_EQ(Ask("speaker-1", "pause"),
            "result 2 pause error=cannot pause while no_media (allowed: play)");
  EXPECT_EQ(Ask("speaker-1", "play"),
            "result 2 play error=no media is loaded (play takes uri)");
  EXPECT_EQ(Ask("speaker-1", "seek", {Int("position", 10)}),
            "result 2 seek error=cannot seek while no_media");
  ASSERT_EQ(Ask("speaker-1", "play", {Text("uri", kUri)}).rfind("result 0 play", 0), 0u);
  EXPECT_EQ(Ask("speaker-1", "seek", {Int("position", 181)}),
            "result 2 seek error=position 181 is past the end of the media (180 s)");
  ASSERT_EQ(Ask("speaker-1", "stop").rfind("result 0 stop", 0), 0u);
  EXPECT_EQ(Ask("speaker-1", "pause"),
            "result 2 pause error=cannot pause while stopped (allowed: play)");
}

// The radio never answers a request it could carry out, but a bad one is refused before it
// would reach the radio, at once; the soundbar answers late.
TEST_F(SimAudio, TheSilentRadioStillRefusesABadRequestAtOnceAndTheSoundbarAnswersLate) {
  Load();
  EXPECT_EQ(Ask("radio-1", "set", {Int("volume", 150)}, 500),
            "result 4 set error=volume 150 is out of range 0..100");
  EXPECT_EQ(Ask("radio-1", "get", {}, 300), "result 1 null");
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(Ask("soundbar-1", "set", {Int("volume", 45)}),
            "result 0 set device_id=soundbar-1 volume=45 muted=false transport_state=no_media "
            "position=0 duration=0");
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(1200));
}

// A speaker of the configuration: its settings, media loaded from the start (stopped), a
// position that runs while it plays and media that ends on its own.
TEST_F(SimAudio, AConfiguredSpeakersMediaPlaysItsDurationAndEnds) {
  Load(R"({"devices": [{"id": "kitchen-1", "service": "audio", "name": "Kitchen",
            "speaker": {"volume": 60, "muted": true, "media_duration": 2,
                        "uri": "http://example.com/a.mp3"}}]})");
  const std::string loaded = " uri=http://example.com/a.mp3";
  EXPECT_EQ(Ask("kitchen-1", "get"),
            "result 0 get device_id=kitchen-1 volume=60 muted=true transport_state=stopped" +
                loaded + " position=0 duration=2");
  EXPECT_EQ(Ask("kitchen-1", "play"),
            "result 0 play device_id=kitchen-1 volume=60 muted=true transport_state=playing" +
                loaded + " position=0 duration=2");
  EXPECT_TRUE(Eventually([&] {
    return Ask("kitchen-1", "get") ==
           "result 0 get device_id=kitchen-1 volume=60 muted=true transport_state=playing" +
               loaded + " position=1 duration=2";
  }));
  EXPECT_TRUE(events_.WaitCount("notify state device_id=kitchen-1 volume=60 muted=true "
                                "transport_state=stopped" + loaded + " duration=2", 1));
  EXPECT_EQ(Ask("kitchen-1", "get"),
            "result 0 get device_id=kitchen-1 volume=60 muted=true transport_state=stopped" +
                loaded + " position=0 duration=2");
}

// A pause stops the clock: the end of the media does not come while paused, and a play goes
// on from where it stood.
TEST_F(SimAudio, APausedSpeakersMediaDoesNotEnd) {
  Load(R"({"devices": [{"id": "kitchen-1", "service": "audio",
            "speaker": {"media_duration": 2, "uri": "http://example.com/a.mp3"}}]})");
  ASSERT_EQ(Ask("kitchen-1", "play").rfind("result 0 play", 0), 0u);
  ASSERT_EQ(Ask("kitchen-1", "pause").rfind("result 0 pause", 0), 0u);
  // Past the end the media would have had, had it played on: still paused, nobody told.
  const std::string stopped =
      "notify state device_id=kitchen-1 volume=25 muted=false transport_state=stopped";
  EXPECT_FALSE(Eventually([&] { return events_.CountPrefix(stopped) > 0; },
                          std::chrono::milliseconds(2500)));
  const std::string paused = Ask("kitchen-1", "get");
  EXPECT_EQ(paused.rfind("result 0 get device_id=kitchen-1 volume=25 muted=false "
                         "transport_state=paused", 0), 0u) << paused;
  ASSERT_EQ(Ask("kitchen-1", "play").rfind("result 0 play", 0), 0u);
  EXPECT_TRUE(events_.WaitPrefix(stopped, 1));
}

TEST(SimAudioConfig, ASpeakersSettingsAreCheckedAtTheirLine) {
  EXPECT_TRUE(RefusedAs("{\"devices\": [{\"id\": \"a\", \"service\": \"audio\",\n"
                        "\"properties\": []}]}\n",
                        "2: devices[0] (\"a\"): a device of the service audio is a speaker: no "
                        "\"properties\" (its settings go in \"speaker\")"));
  EXPECT_TRUE(RefusedAs("{\"devices\": [{\"id\": \"a\", \"service\": \"lights\",\n"
                        "\"speaker\": {}}]}\n",
                        "2: devices[0] (\"a\"): \"speaker\" is for a device of the service audio "
                        "only"));
  EXPECT_TRUE(RefusedAs("{\"devices\": [{\"id\": \"a\", \"service\": \"audio\", \"speaker\": {\n"
                        "\"volume\": 101}}]}\n",
                        "2: devices[0] (\"a\").speaker: \"volume\" must be a whole number 0..100, "
                        "not 101"));
  EXPECT_TRUE(RefusedAs("{\"devices\": [{\"id\": \"a\", \"service\": \"audio\", \"speaker\": {\n"
                        "\"media_duration\": 0}}]}\n",
                        "2: devices[0] (\"a\").speaker: \"media_duration\" must be a whole "
                        "number 1..359999, not 0"));
  EXPECT_TRUE(RefusedAs("{\"devices\": [{\"id\": \"a\", \"service\": \"audio\", \"speaker\": {\n"
                        "\"volum\": 10}}]}\n",
                        "2: devices[0] (\"a\").speaker: unknown key \"volum\" (did you mean "
                        "\"volume\"?)"));
  EXPECT_TRUE(RefusedAs("{\"devices\": [{\"id\": \"a\", \"service\": \"audio\", \"speaker\": {\n"
                        "\"uri\": \"\"}}]}\n",
                        "2: devices[0] (\"a\").speaker: \"uri\" must have 1 to 2048 bytes"));
}
