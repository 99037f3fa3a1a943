// What the spine target and the seed writer share: the scratch service a client talks to, and the
// way an input becomes the reads of one connection.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "tests/service/ClientHarness.h"

namespace vigil_fuzz {

// The client id the corpus writes in every header after Hello; the spine swaps in the id the
// driven client really got, so that requests pass the id check and reach the handlers.
inline constexpr uint32_t kCorpusClientId = 1;

// A small folder tree for the corpus's requests to watch, the same path in every process (so the
// seeds can name it) and made on first use: "<temporary folder>/vigil-fuzz-spine-tree/" with two
// levels of subfolders. Watching the whole temporary folder instead would walk whatever it holds.
std::string WatchableFolder();

// Sets up once per process: a scratch data folder, the client table, dispatch, and the watch
// database opened on it (its thread included), as the service starts them.
void StartScratchService();

// Feeds `data` to a new client as one connection's reads: the first byte picks the read size
// (1 to 256 bytes), the rest is the stream. Returns the replies; `messages`, when given, gets the
// number of messages the same reads cut from the stream, counted on a receive buffer of its own.
std::vector<vigil_test::Reply> DriveOneClient(const uint8_t* data, size_t size,
                                              size_t* messages = nullptr);

}  // namespace vigil_fuzz
