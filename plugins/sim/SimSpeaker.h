// A simulated speaker's operations: the "audio" service's words (AudioRequest.h), carried out
// on a Speaker as a media renderer would. No thread of its own: the plugin calls these on its
// worker, with the time it takes as "now".
#pragma once

#include <cstdint>
#include <string>

#include "AudioRequest.h"
#include "SimModel.h"

namespace hxf_sim {

// The speaker's state at `now`: device_id aside, every property of the vocabulary but the
// title (the simulator knows none); the uri while something is loaded; position and
// duration 0 while nothing is.
SpeakerState StateOf(const Speaker& speaker, Speaker::Clock::time_point now);

// What subscribers are told: the state without its running clock (the position), which only
// answers carry, as with a media renderer.
SpeakerState Notified(SpeakerState state);

// Carries out `operation`, already checked (hxf_tool::audio::CheckRequest), at `now`. Empty
// when done; else the speaker's own refusal (answer it with HXF_ERROR_OPERATION_FAILED) and
// nothing has changed:
//   play   loads `uri` when given (at position 0), then plays; with nothing loaded and no
//          uri it is refused ("no media is loaded (play takes uri)")
//   pause  while playing; while paused it changes nothing; refused while stopped or no_media
//   stop   stopped at position 0, the uri kept; with nothing loaded it changes nothing
//   seek   to a position within the media's duration, in any state but no_media; playing
//          goes on from there
//   set    volume and/or muted, in any state
std::string Operate(Speaker* speaker, const std::string& operation,
                    const hxf_tool::audio::Request& asked, Speaker::Clock::time_point now);

// Milliseconds from `now` until a playing speaker reaches the end of its media.
uint32_t MillisToEnd(const Speaker& speaker, Speaker::Clock::time_point now);

// The end of the media: stopped at position 0, the uri kept.
void EndOfMedia(Speaker* speaker);

// The consumer's name of a transport state ("no_media", "stopped", ...).
const char* TransportName(Speaker::Transport transport);

}  // namespace hxf_sim
