// The two invokers every context owner chooses between, by the names the owners use.
#pragma once

#include "CDirectInvoker.h"
#include "CThreadPoolInvoker.h"

namespace HXFramework::TPL {

// Runs the drain on the posting thread, before the posting returns.
inline CDirectInvoker& Direct() { return CDirectInvoker::GetInstance(); }
// Runs the drain on a pool thread; the posting returns at once.
inline CThreadPoolInvoker& Pool() { return CThreadPoolInvoker::GetInstance(); }

}  // namespace HXFramework::TPL
