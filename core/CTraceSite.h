#pragma once

namespace HXFramework::Core {

// Where an entry/exit trace object was made: its entry line is written from it at once, its
// exit line when the object goes.
struct CTraceSite {
  int priority;
  const char* file;
  const char* function;
  int line;
  const void* object;  // null for a trace that names no object
};

}  // namespace HXFramework::Core
