// The UPnP plugin's readers of what media renderers send (plugins/upnp/UpnpAudioReaders.h),
// alone: no GUPnP, no network. The LastChange events are gmediarender's own, captured from
// its GENA NOTIFYs (tests/fuzz/corpus/upnp_audio, also the fuzzer's seeds).
#include <gtest/gtest.h>
#include <libxml/parser.h>

#include <cstdint>
#include <fstream>
#include <limits>
#include <sstream>
#include <string>

#include "UpnpAudioReaders.h"

namespace hxf_upnp {
namespace {

std::string Event(const std::string& name) {
  std::ifstream file(std::string(HXF_UPNP_AUDIO_EVENTS) + "/" + name, std::ios::binary);
  EXPECT_TRUE(file.good()) << name;
  std::ostringstream text;
  text << file.rdbuf();
  return text.str();
}

// An event of instance 0 with these variable elements.
std::string Instance0(const std::string& variables) {
  return "<?xml version=\"1.0\"?>\n<Event xmlns=\"urn:schemas-upnp-org:metadata-1-0/AVT/\">\n"
         "<InstanceID val=\"0\">\n" + variables + "</InstanceID>\n</Event>\n";
}

// Applies `xml` to `state`; the problem it gives, or "FAILED: problem" when it refused it all.
std::string Apply(const std::string& xml, AudioState* state) {
  std::string problem = "untouched";
  const bool read = ApplyLastChange(xml, state, &problem);
  return read ? problem : "FAILED: " + problem;
}

constexpr const char* kTone = "http://169.254.78.1:8791/tone.wav";
constexpr const char* kToneTitle = "Tone & Co 440 Hz";

// ---- gmediarender's own events ----

TEST(UpnpAudioReaders, RenderingControlsFirstEventGivesVolumeAndMuteOnly) {
  AudioState state;
  EXPECT_EQ(Apply(Event("gmediarender-rendering-first.xml"), &state), "");
  AudioState expected;
  expected.volume = 100;
  expected.muted = false;
  EXPECT_EQ(state, expected);  // VolumeDB, Loudness, the video gains...: not followed
}

TEST(UpnpAudioReaders, RenderingControlsVolumeAndMuteEvents) {
  AudioState state;
  EXPECT_EQ(Apply(Event("gmediarender-rendering-first.xml"), &state), "");
  EXPECT_EQ(Apply(Event("gmediarender-rendering-volume-30.xml"), &state), "");
  EXPECT_EQ(state.volume, std::optional<int64_t>(30));
  EXPECT_EQ(state.muted, std::optional<bool>(false));
  EXPECT_EQ(Apply(Event("gmediarender-rendering-mute.xml"), &state), "");
  EXPECT_EQ(state.muted, std::optional<bool>(true));
  EXPECT_EQ(state.volume, std::optional<int64_t>(30));
  EXPECT_EQ(Apply(Event("gmediarender-rendering-unmute.xml"), &state), "");
  EXPECT_EQ(state.muted, std::optional<bool>(false));
  EXPECT_EQ(Apply(Event("gmediarender-rendering-volume-100.xml"), &state), "");
  EXPECT_EQ(state.volume, std::optional<int64_t>(100));
}

TEST(UpnpAudioReaders, AVTransportsFirstEventGivesAStoppedRendererWithoutMedia) {
  AudioState state;
  state.uri = "http://old/";
  state.title = "old";
  EXPECT_EQ(Apply(Event("gmediarender-transport-first.xml"), &state), "");
  AudioState expected;
  expected.transport_state = "stopped";
  expected.position = 0;  // RelativeTimePosition 0:00:00
  expected.duration = 0;  // CurrentTrackDuration 0:00:00 (CurrentMediaDuration "" is skipped)
  EXPECT_EQ(state, expected);  // AVTransportURI "" and AVTransportURIMetaData "": no media
}

TEST(UpnpAudioReaders, AVTransportsEventsThroughSetPlayPauseResumeAndStop) {
  AudioState state;
  EXPECT_EQ(Apply(Event("gmediarender-transport-first.xml"), &state), "");

  EXPECT_EQ(Apply(Event("gmediarender-transport-set-uri.xml"), &state), "");
  EXPECT_EQ(state.uri, std::optional<std::string>(kTone));
  // The DIDL-Lite text escaped in the attribute, its own &amp; escaped once more.
  EXPECT_EQ(state.title, std::optional<std::string>(kToneTitle));
  EXPECT_EQ(state.transport_state, std::optional<std::string>("stopped"));

  EXPECT_EQ(Apply(Event("gmediarender-transport-play.xml"), &state), "");
  EXPECT_EQ(state.transport_state, std::optional<std::string>("playing"));
  EXPECT_EQ(state.title, std::optional<std::string>(kToneTitle));  // CurrentTrackMetaData

  EXPECT_EQ(Apply(Event("gmediarender-transport-duration.xml"), &state), "");
  EXPECT_EQ(state.duration, std::optional<int64_t>(60));  // 0:01:00

  EXPECT_EQ(Apply(Event("gmediarender-transport-pause.xml"), &state), "");
  EXPECT_EQ(state.transport_state, std::optional<std::string>("paused"));
  EXPECT_EQ(Apply(Event("gmediarender-transport-resume.xml"), &state), "");
  EXPECT_EQ(state.transport_state, std::optional<std::string>("playing"));

  // gmediarender's stop unloads the media.
  EXPECT_EQ(Apply(Event("gmediarender-transport-stop.xml"), &state), "");
  AudioState stopped;
  stopped.transport_state = "stopped";
  stopped.position = 0;
  stopped.duration = 60;
  EXPECT_EQ(state, stopped);

  // A URI set without metadata: no title.
  EXPECT_EQ(Apply(Event("gmediarender-transport-set-uri-no-metadata.xml"), &state), "");
  EXPECT_EQ(state.uri, std::optional<std::string>(kTone));
  EXPECT_EQ(state.title, std::nullopt);
}

// ---- what is followed, and what is not ----

TEST(UpnpAudioReaders, OnlyInstanceZeroIsApplied) {
  AudioState state;
  const std::string xml =
      "<Event xmlns=\"urn:schemas-upnp-org:metadata-1-0/RCS/\">"
      "<InstanceID val=\"1\"><Volume val=\"11\" channel=\"Master\"/><Mute val=\"1\" channel=\"Master\"/></InstanceID>"
      "<InstanceID val=\"0\"><Volume val=\"40\" channel=\"Master\"/></InstanceID>"
      "<InstanceID val=\"00\"><Volume val=\"12\" channel=\"Master\"/></InstanceID>"
      "<InstanceID><Volume val=\"13\" channel=\"Master\"/></InstanceID>"
      "<InstanceID val=\"2\"><Volume val=\"999\" channel=\"Master\"/></InstanceID>"
      "</Event>";
  EXPECT_EQ(Apply(xml, &state), "");  // the bad volume of instance 2 is not even read
  AudioState expected;
  expected.volume = 40;
  EXPECT_EQ(state, expected);
}

TEST(UpnpAudioReaders, OnlyTheMasterChannelIsApplied) {
  AudioState state;
  EXPECT_EQ(Apply(Instance0("<Volume val=\"20\" channel=\"LF\"/><Volume val=\"25\" channel=\"Master\"/>"
                            "<Volume val=\"30\" channel=\"RF\"/><Mute val=\"1\" channel=\"LF\"/>"),
                  &state),
            "");
  AudioState expected;
  expected.volume = 25;
  EXPECT_EQ(state, expected);
  // Without a channel (AVTransport's variables have none), it is applied.
  EXPECT_EQ(Apply(Instance0("<Volume val=\"26\"/>"), &state), "");
  EXPECT_EQ(state.volume, std::optional<int64_t>(26));
}

TEST(UpnpAudioReaders, AVariableWithoutAValueIsIgnored) {
  AudioState state;
  EXPECT_EQ(Apply(Instance0("<Volume channel=\"Master\">50</Volume>"), &state), "");
  EXPECT_EQ(state, AudioState{});
}

TEST(UpnpAudioReaders, BadValuesAreSkippedAndNamedTheOthersApplied) {
  AudioState state;
  const std::string xml = Instance0(
      "<Volume val=\"101\" channel=\"Master\"/>"
      "<Mute val=\"yes\" channel=\"Master\"/>"
      "<TransportState val=\"DANCING\"/>"
      "<CurrentTrackDuration val=\"1:60:00\"/>"
      "<RelativeTimePosition val=\"-0:00:01\"/>"
      "<AVTransportURI val=\"http://renderer/a.mp3\"/>"
      "<CurrentMediaDuration val=\"NOT_IMPLEMENTED\"/>"
      "<TransportStatus val=\"ERROR_OCCURRED\"/>");
  EXPECT_EQ(Apply(xml, &state),
            "Volume \"101\" is not a volume 0..100; Mute \"yes\" is not a bool; "
            "TransportState \"DANCING\" is not a transport state; "
            "CurrentTrackDuration \"1:60:00\" is not a time H:MM:SS; "
            "RelativeTimePosition \"-0:00:01\" is not a time H:MM:SS");
  AudioState expected;
  expected.uri = "http://renderer/a.mp3";
  EXPECT_EQ(state, expected);
}

TEST(UpnpAudioReaders, VolumeBounds) {
  AudioState state;
  EXPECT_EQ(Apply(Instance0("<Volume val=\"0\" channel=\"Master\"/>"), &state), "");
  EXPECT_EQ(state.volume, std::optional<int64_t>(0));
  EXPECT_EQ(Apply(Instance0("<Volume val=\"100\" channel=\"Master\"/>"), &state), "");
  EXPECT_EQ(state.volume, std::optional<int64_t>(100));
  for (const char* bad : {"-1", "101", "", "+5", " 5", "5 ", "0x10", "1e2", "50.0",
                          "99999999999999999999999"}) {
    EXPECT_EQ(Apply(Instance0(std::string("<Volume val=\"") + bad + "\" channel=\"Master\"/>"),
                    &state),
              std::string("Volume \"") + bad + "\" is not a volume 0..100")
        << bad;
    EXPECT_EQ(state.volume, std::optional<int64_t>(100)) << bad;
  }
}

TEST(UpnpAudioReaders, MuteTakesTheFormsOfABool) {
  for (const char* yes : {"1", "true", "True", "TRUE"}) {
    AudioState state;
    EXPECT_EQ(Apply(Instance0(std::string("<Mute val=\"") + yes + "\" channel=\"Master\"/>"), &state), "");
    EXPECT_EQ(state.muted, std::optional<bool>(true)) << yes;
  }
  for (const char* no : {"0", "false", "False", "FALSE"}) {
    AudioState state;
    EXPECT_EQ(Apply(Instance0(std::string("<Mute val=\"") + no + "\" channel=\"Master\"/>"), &state), "");
    EXPECT_EQ(state.muted, std::optional<bool>(false)) << no;
  }
  AudioState state;
  EXPECT_EQ(Apply(Instance0("<Mute val=\"2\" channel=\"Master\"/>"), &state), "Mute \"2\" is not a bool");
  EXPECT_EQ(state.muted, std::nullopt);
}

TEST(UpnpAudioReaders, EveryAVTransportStateHasItsName) {
  const std::pair<const char*, const char*> states[] = {
      {"STOPPED", "stopped"}, {"PLAYING", "playing"}, {"PAUSED_PLAYBACK", "paused"},
      {"TRANSITIONING", "transitioning"}, {"NO_MEDIA_PRESENT", "no_media"}};
  for (const auto& [upnp, name] : states) {
    AudioState state;
    EXPECT_EQ(Apply(Instance0(std::string("<TransportState val=\"") + upnp + "\"/>"), &state), "");
    EXPECT_EQ(state.transport_state, std::optional<std::string>(name)) << upnp;
  }
  AudioState state;
  EXPECT_EQ(Apply(Instance0("<TransportState val=\"playing\"/>"), &state),
            "TransportState \"playing\" is not a transport state");
}

TEST(UpnpAudioReaders, AUriLongerThan2048BytesIsRefused) {
  AudioState state;
  const std::string longest = "http://r/" + std::string(2048 - 9, 'a');
  EXPECT_EQ(Apply(Instance0("<AVTransportURI val=\"" + longest + "\"/>"), &state), "");
  EXPECT_EQ(state.uri, std::optional<std::string>(longest));
  const std::string longer = longest + "b";
  // The problem quotes the value's first 64 bytes.
  EXPECT_EQ(Apply(Instance0("<AVTransportURI val=\"" + longer + "\"/>"), &state),
            "AVTransportURI \"" + longer.substr(0, 64) + "\" is longer than 2048 bytes");
  EXPECT_EQ(state.uri, std::optional<std::string>(longest));
}

TEST(UpnpAudioReaders, MetadataWithoutATitleClearsTheTitleOnlyForNewMedia) {
  AudioState state;
  state.title = "kept";
  const std::string no_title = "&lt;DIDL-Lite&gt;&lt;item/&gt;&lt;/DIDL-Lite&gt;";
  EXPECT_EQ(Apply(Instance0("<CurrentTrackMetaData val=\"" + no_title + "\"/>"), &state), "");
  EXPECT_EQ(state.title, std::optional<std::string>("kept"));
  EXPECT_EQ(Apply(Instance0("<CurrentTrackMetaData val=\"NOT_IMPLEMENTED\"/>"), &state), "");
  EXPECT_EQ(state.title, std::optional<std::string>("kept"));
  EXPECT_EQ(Apply(Instance0("<AVTransportURIMetaData val=\"" + no_title + "\"/>"), &state), "");
  EXPECT_EQ(state.title, std::nullopt);
}

// ---- refused whole ----

TEST(UpnpAudioReaders, AnEventLongerThanTheBoundIsRefused) {
  const std::string head = Instance0("<Volume val=\"7\" channel=\"Master\"/>");
  // Exactly at the bound: read (the padding is a comment after the root).
  std::string at_bound = head + "<!--" + std::string(kMaxEventBytes - head.size() - 7, 'x') + "-->";
  at_bound.resize(kMaxEventBytes, ' ');
  ASSERT_EQ(at_bound.size(), kMaxEventBytes);
  AudioState state;
  EXPECT_EQ(Apply(at_bound, &state), "");
  EXPECT_EQ(state.volume, std::optional<int64_t>(7));

  AudioState untouched;
  EXPECT_EQ(Apply(at_bound + " ", &untouched),
            "FAILED: the XML text has 65537 bytes (at most 65536)");
  EXPECT_EQ(untouched, AudioState{});
}

TEST(UpnpAudioReaders, AnEventNestedDeeperThanTheBoundIsRefused) {
  // Event, InstanceID, Volume and 5 more: 8 levels, read.
  const std::string five_open = "<a><b><c><d><e>", five_close = "</e></d></c></b></a>";
  AudioState state;
  EXPECT_EQ(Apply(Instance0("<Volume val=\"9\" channel=\"Master\">" + five_open + five_close +
                            "</Volume>"),
                  &state),
            "");
  EXPECT_EQ(state.volume, std::optional<int64_t>(9));
  // 9 levels: refused, nothing applied.
  AudioState untouched;
  EXPECT_EQ(Apply(Instance0("<Volume val=\"9\" channel=\"Master\">" + five_open + "<f/>" +
                            five_close + "</Volume>"),
                  &untouched),
            "FAILED: the XML nests deeper than 8 elements");
  EXPECT_EQ(untouched, AudioState{});
  // Deeper: refused the same; past libxml2's own bound (256 levels), not even read.
  const auto nested = [](int levels) {
    std::string deep;
    for (int i = 0; i < levels; ++i) deep += "<x>";
    for (int i = 0; i < levels; ++i) deep += "</x>";
    return Instance0(deep);
  };
  EXPECT_EQ(Apply(nested(200), &untouched), "FAILED: the XML nests deeper than 8 elements");
  EXPECT_EQ(Apply(nested(5000), &untouched), "FAILED: not XML");
  EXPECT_EQ(untouched, AudioState{});
}

TEST(UpnpAudioReaders, TextThatIsNotXmlIsRefused) {
  for (const std::string& bad :
       {std::string(), std::string("hello"), std::string("<Event>"),
        std::string("<Event><InstanceID val=\"0\"></Event>"), std::string("<?xml version=\"1.0\"?>"),
        std::string("<Event/><Event/>"), std::string("<Event>\0</Event>", 16),
        std::string("<Event a=\"1\" a=\"2\"/>")}) {
    AudioState state;
    EXPECT_EQ(Apply(bad, &state), "FAILED: not XML") << bad;
    EXPECT_EQ(state, AudioState{});
  }
}

TEST(UpnpAudioReaders, TextItsEncodingCannotConvertIsRefusedWithoutAWordOnStderr) {
  const xmlGenericErrorFunc handler = xmlGenericError;
  testing::internal::CaptureStderr();
  AudioState state;
  const std::string problem =
      Apply("<?xml version=\"1.0\" encoding=\"EUC-JP\"?><Event>\xff\xff</Event>", &state);
  const std::string title = TitleOf("<?xml version=\"1.0\" encoding=\"EUC-JP\"?><d><title>\xff\xff"
                                    "</title></d>").value_or("none");
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
  EXPECT_EQ(problem, "FAILED: not XML");
  EXPECT_EQ(title, "none");
  EXPECT_EQ(state, AudioState{});
  EXPECT_EQ(xmlGenericError, handler);  // the thread's handler is given back
}

TEST(UpnpAudioReaders, ARootOtherThanEventIsRefused) {
  AudioState state;
  EXPECT_EQ(Apply("<propertyset><InstanceID val=\"0\"><Volume val=\"5\"/></InstanceID></propertyset>",
                  &state),
            "FAILED: the root element is propertyset, not Event");
  EXPECT_EQ(state, AudioState{});
}

// ---- entities: never expanded, never fetched ----

TEST(UpnpAudioReaders, BillionLaughsInAnEventIsRefusedUnexpanded) {
  std::string dtd = "<!DOCTYPE Event [<!ENTITY lol \"lol\">";
  std::string previous = "lol";
  for (int level = 1; level <= 9; ++level) {
    const std::string name = "lol" + std::to_string(level);
    dtd += "<!ENTITY " + name + " \"";
    for (int i = 0; i < 10; ++i) dtd += "&" + previous + ";";
    dtd += "\">";
    previous = name;
  }
  dtd += "]>";
  for (const char* body :
       {"<Event><InstanceID val=\"0\"><AVTransportURI val=\"&lol9;\"/></InstanceID></Event>",
        "<Event><InstanceID val=\"&lol9;\"><Volume val=\"5\"/></InstanceID></Event>",
        "<Event><InstanceID val=\"0\"><AVTransportURI val=\"x\">&lol9;</AVTransportURI></InstanceID></Event>"}) {
    AudioState state;
    EXPECT_EQ(Apply(dtd + body, &state), "FAILED: the XML has a document type declaration")
        << body;
    EXPECT_EQ(state, AudioState{});
  }
}

TEST(UpnpAudioReaders, ExternalEntitiesAreNeitherReadNorFetched) {
  for (const std::string source : {"file:///etc/hostname", "http://169.254.0.1:9/x"}) {
    AudioState state;
    EXPECT_EQ(Apply("<?xml version=\"1.0\"?><!DOCTYPE Event [<!ENTITY e SYSTEM \"" + source +
                        "\">]><Event><InstanceID val=\"0\"><AVTransportURI val=\"a&e;b\"/>"
                        "</InstanceID></Event>",
                    &state),
              "FAILED: the XML has a document type declaration")
        << source;
    EXPECT_EQ(state, AudioState{});
    AudioState external;
    EXPECT_EQ(Apply("<!DOCTYPE Event SYSTEM \"" + source + "\"><Event/>", &external),
              "FAILED: the XML has a document type declaration");
  }
}

TEST(UpnpAudioReaders, TheMetadataInsideAnEventMayNotDeclareEntitiesEither) {
  // The DIDL-Lite text is a document of its own: a DTD there leaves the title unread.
  AudioState state;
  state.title = "kept";
  EXPECT_EQ(Apply(Instance0("<CurrentTrackMetaData val=\"&lt;!DOCTYPE d [&lt;!ENTITY t "
                            "&quot;Evil&quot;&gt;]&gt;&lt;d&gt;&lt;title&gt;&amp;t;&lt;/title&gt;"
                            "&lt;/d&gt;\"/>"),
                  &state),
            "");
  EXPECT_EQ(state.title, std::optional<std::string>("kept"));
}

// ---- times ----

TEST(UpnpAudioReaders, ParseTimeReadsHMMSSWithAnOptionalFraction) {
  EXPECT_EQ(ParseTime("0:00:00"), std::optional<int64_t>(0));
  EXPECT_EQ(ParseTime("1:02:03"), std::optional<int64_t>(3723));
  EXPECT_EQ(ParseTime("01:02:03"), std::optional<int64_t>(3723));
  EXPECT_EQ(ParseTime("1:02:03.500"), std::optional<int64_t>(3723));  // the fraction is dropped
  EXPECT_EQ(ParseTime("1:02:03.999"), std::optional<int64_t>(3723));
  EXPECT_EQ(ParseTime("0:00:01.1/2"), std::optional<int64_t>(1));     // F0/F1
  EXPECT_EQ(ParseTime("99:59:59"), std::optional<int64_t>(359999));
  EXPECT_EQ(ParseTime("999999:59:59"), std::optional<int64_t>(999999 * int64_t{3600} + 3599));
}

TEST(UpnpAudioReaders, ParseTimeRefusesEverythingElse) {
  for (const char* bad : {"", "NOT_IMPLEMENTED", "99999999999:00:00", "1000000:00:00", "-1:00:00",
                          "0:-1:00", "1:60:00", "1:00:60", "1:2:03", "1:02:3", ":02:03", "1:02",
                          "1:02:03.", "1:02:03.5x", "1:02:03,5", "1:02:03 ", " 1:02:03",
                          "+1:02:03", "1:02:03:04", "a:bc:de", "1:02:03.123456789012345678901"}) {
    EXPECT_EQ(ParseTime(bad), std::nullopt) << bad;
  }
  EXPECT_EQ(ParseTime(std::string("1:02:03\0", 8)), std::nullopt);
}

TEST(UpnpAudioReaders, FormatTimeWritesHMMSSThatParseTimeReadsBack) {
  EXPECT_EQ(FormatTime(0), "0:00:00");
  EXPECT_EQ(FormatTime(59), "0:00:59");
  EXPECT_EQ(FormatTime(3723), "1:02:03");
  EXPECT_EQ(FormatTime(99 * 3600 + 59 * 60 + 59), "99:59:59");
  EXPECT_EQ(FormatTime(100 * 3600), "100:00:00");
  for (int64_t seconds : {int64_t{0}, int64_t{1}, int64_t{59}, int64_t{60}, int64_t{3599},
                          int64_t{3600}, int64_t{359999}, int64_t{999999} * 3600 + 3599}) {
    EXPECT_EQ(ParseTime(FormatTime(seconds)), std::optional<int64_t>(seconds)) << seconds;
  }
  for (int64_t seconds = 0; seconds < 2 * 3600; seconds += 7)
    ASSERT_EQ(ParseTime(FormatTime(seconds)), std::optional<int64_t>(seconds)) << seconds;
}

// ---- titles ----

TEST(UpnpAudioReaders, TitleOfReadsTheDcTitleOfDidlLite) {
  EXPECT_EQ(TitleOf(Event("didl-current-track.xml")), std::optional<std::string>(kToneTitle));
  EXPECT_EQ(TitleOf("<DIDL-Lite xmlns:dc=\"http://purl.org/dc/elements/1.1/\"><container>"
                    "<item><dc:title>First</dc:title></item><item><dc:title>Second</dc:title>"
                    "</item></container></DIDL-Lite>"),
            std::optional<std::string>("First"));
  // Its text, markup inside left out.
  EXPECT_EQ(TitleOf("<d><title>A <b>bold</b> one</title></d>"),
            std::optional<std::string>("A bold one"));
}

TEST(UpnpAudioReaders, TitleOfGivesNothingWithoutAUsableTitle) {
  EXPECT_EQ(TitleOf(""), std::nullopt);
  EXPECT_EQ(TitleOf("NOT_IMPLEMENTED"), std::nullopt);
  EXPECT_EQ(TitleOf("<DIDL-Lite><item><res>http://x/</res></item></DIDL-Lite>"), std::nullopt);
  EXPECT_EQ(TitleOf("<DIDL-Lite><item><dc:title></dc:title></item></DIDL-Lite>"), std::nullopt);
  EXPECT_EQ(TitleOf("<DIDL-Lite><item><dc:title>unclosed</item></DIDL-Lite>"), std::nullopt);
  const std::string longest(2048, 't');
  EXPECT_EQ(TitleOf("<d><title>" + longest + "</title></d>"), std::optional<std::string>(longest));
  EXPECT_EQ(TitleOf("<d><title>" + longest + "t</title></d>"), std::nullopt);
  std::string deep = "<title>deep</title>";
  for (int i = 0; i < 8; ++i) deep = "<x>" + deep + "</x>";
  EXPECT_EQ(TitleOf(deep), std::nullopt);  // 9 levels
  EXPECT_EQ(TitleOf("<d><title>" + std::string(kMaxEventBytes, 't') + "</title></d>"),
            std::nullopt);
}

}  // namespace
}  // namespace hxf_upnp
