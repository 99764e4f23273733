// Common::KeepForCaller: the hand-over of a counted object that an operation returns without a
// count of its own (openChannel, startChannelServer). Between the return and the caller's
// SmartPtr another thread may drop every other reference: the reactor drops a channel whose
// peer closed at once. One reference per calling thread is kept here, until that thread hands
// over its next object or ends, so that the pointer is alive whenever the caller takes it.
#pragma once

#include "corvane/refcnt.h"

namespace Common {

// Caller's thread. Keeps `object` (which may be null) and lets the previous one of this thread go.
void KeepForCaller(const IRefCnt * object);

}  // namespace Common
