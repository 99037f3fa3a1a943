// onChanges: the completion routine of every directory read of the watch thread. It keeps the
// watch's read chain going and turns a finished batch into calls on the watch's Database:
//   - error 2: the folder has gone; folderGone for it (its names stay to be collected), no next
//     read;
//   - another error: a failure inside the watch, written to standard error; the next read goes
//     out as after a batch;
//   - zero bytes without an error: a close; the chain ends, nothing is reported;
//   - otherwise: the batch is filtered (FilterChanges) and reported with one addChanges and then
//     one removeChanges; then the same record goes out as the watch's next read.
// Runs on the watch thread only, inside its wait, with the thread lock released.
#pragma once

#include <cstdint>
#include <vector>

#include "platform/DirectoryChanges.h"
#include "service/VigilWatchChangeFilter.h"

namespace Vigil::Watch {

void onChanges(uint32_t errorCode, uint32_t bytes, Osb::DirectoryOverlapped* overlapped);

// The (action, name) pairs of a filled notification buffer, in order. Only the first
// min(bytes, capacity) bytes are looked at: a record or name reaching past them ends the walk,
// whatever its offsets say. A name is kept whole, however long (there is no fixed name buffer).
std::vector<NamedChange> DecodeNotifyBuffer(const uint8_t* buffer, uint32_t bytes,
                                            uint32_t capacity);

}  // namespace Vigil::Watch
