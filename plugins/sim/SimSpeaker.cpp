#include "SimSpeaker.h"

#include <algorithm>

namespace hxf_sim {

namespace audio = hxf_tool::audio;
using Transport = Speaker::Transport;

namespace {

// Where the speaker is in its media at `now`: a playing speaker's clock runs, in whole
// seconds, up to the media's end.
int64_t PositionAt(const Speaker& speaker, Speaker::Clock::time_point now) {
  if (speaker.transport != Transport::kPlaying) return speaker.position;
  const auto elapsed = std::chrono::duration_cast<std::chrono::seconds>(now - speaker.since);
  return std::min(speaker.media_duration, speaker.position + std::max<int64_t>(0, elapsed.count()));
}

std::string NotNow(const std::string& operation, const Speaker& speaker) {
  return audio::NotNow(operation, TransportName(speaker.transport));
}

}  // namespace

const char* TransportName(Transport transport) {
  switch (transport) {
    case Transport::kStopped:
      return audio::kTransportStates[0].name;
    case Transport::kPlaying:
      return audio::kTransportStates[1].name;
    case Transport::kPaused:
      return audio::kTransportStates[2].name;
    case Transport::kNoMedia:
      break;
  }
  return audio::kTransportStates[4].name;
}

SpeakerState StateOf(const Speaker& speaker, Speaker::Clock::time_point now) {
  SpeakerState state;
  state.volume = speaker.volume;
  state.muted = speaker.muted;
  state.transport_state = std::string(TransportName(speaker.transport));
  const bool loaded = speaker.transport != Transport::kNoMedia;
  if (loaded) state.uri = speaker.uri;
  state.position = loaded ? PositionAt(speaker, now) : 0;
  state.duration = loaded ? speaker.media_duration : 0;
  return state;
}

SpeakerState Notified(SpeakerState state) {
  state.position.reset();
  return state;
}

std::string Operate(Speaker* speaker, const std::string& operation,
                    const audio::Request& asked, Speaker::Clock::time_point now) {
  const int64_t position = PositionAt(*speaker, now);
  // Where the media is and whether it plays, from `now` on.
  const auto move = [&](Transport transport, int64_t at) {
    speaker->transport = transport;
    speaker->position = at;
    speaker->since = now;
    ++speaker->generation;
  };
  if (operation == audio::kSet) {
    if (asked.volume) speaker->volume = *asked.volume;
    if (asked.muted) speaker->muted = *asked.muted;
  } else if (operation == audio::kPlay) {
    if (asked.uri) {
      speaker->uri = *asked.uri;
      move(Transport::kPlaying, 0);
    } else if (speaker->transport == Transport::kNoMedia) {
      return audio::NothingToPlay();
    } else if (speaker->transport != Transport::kPlaying) {
      move(Transport::kPlaying, position);
    }
  } else if (operation == audio::kPause) {
    if (speaker->transport == Transport::kPlaying) {
      move(Transport::kPaused, position);
    } else if (speaker->transport != Transport::kPaused) {
      return NotNow(operation, *speaker) + " (allowed: play)";
    }
  } else if (operation == audio::kStop) {
    if (speaker->transport != Transport::kNoMedia) move(Transport::kStopped, 0);
  } else if (operation == audio::kSeek) {
    if (speaker->transport == Transport::kNoMedia) return NotNow(operation, *speaker);
    if (*asked.position > speaker->media_duration)
      return "position " + std::to_string(*asked.position) + " is past the end of the media (" +
             std::to_string(speaker->media_duration) + " s)";
    move(speaker->transport, *asked.position);
  }
  return "";
}

uint32_t MillisToEnd(const Speaker& speaker, Speaker::Clock::time_point now) {
  const auto end = speaker.since + std::chrono::seconds(speaker.media_duration - speaker.position);
  const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - now).count();
  return static_cast<uint32_t>(std::max<int64_t>(0, left));
}

void EndOfMedia(Speaker* speaker) {
  speaker->transport = Transport::kStopped;
  speaker->position = 0;
  ++speaker->generation;
}

}  // namespace hxf_sim
