#include "CApiCaller.h"

namespace HXFramework::Core {

thread_local const void* CApiCaller::current_ = nullptr;

}  // namespace HXFramework::Core
