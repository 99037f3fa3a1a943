// The points where the host meets the parts built beside it: the executable's path, the
// configuration step of the constructor, and the process-wide watch database that the run opens
// and closes. Each is one function, so that wiring one in touches one place.
#pragma once

#include <string>

namespace Vigil {

// GetModuleFileNameW with no module: the full path of the running executable, or an empty text
// with the last error set when it cannot be read.
std::u16string ReadModulePath();

// The configuration step: sets the display name and the description in the user's language.
void ConfigureService(std::u16string& displayName, std::u16string& description);

// Watch::Database::open on `dataFolder` (starts the watch thread, loads the cache), and
// Watch::Database::close (stops and joins it). Raise Osb::Exception on failure.
void OpenWatchDatabase(const std::u16string& dataFolder);
void CloseWatchDatabase();

}  // namespace Vigil
