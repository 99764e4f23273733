#include "common/handover.h"

#include <utility>

namespace Common {

void KeepForCaller(const IRefCnt * object) {
    // Released when the thread ends; by then its caller has long taken or dropped the object.
    thread_local SmartPtrToConst<IRefCnt> kept;
    SmartPtrToConst<IRefCnt> previous(std::move(kept));
    kept = object;
    // `previous` goes here, after the new one is held: handing over the same object twice is safe.
}

}  // namespace Common
