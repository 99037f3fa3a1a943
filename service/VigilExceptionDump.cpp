#include "service/VigilExceptionDump.h"

#include "platform/Utf.h"

namespace Vigil {

int DumpException(const Osb::Exception& failure, std::FILE* out, int exitCode) {
    std::fprintf(out, "Dump Exception Stack -- Unexpected Error. Depth of %d\n", failure.depth());
    const auto* system = dynamic_cast<const Osb::ExSystem*>(&failure);
    for (int index = 0; index < failure.depth(); ++index) {
        if (system != nullptr) {
            std::fprintf(out, "    Operating System Error = %d\n",
                         static_cast<int>(system->status()));
            exitCode = static_cast<int>(system->status());
        } else {
            exitCode = -1;
        }
        std::fprintf(out, "    What: %s\n", Osb::Utf16ToUtf8(failure.reason(index).what()).c_str());
    }
    std::fflush(out);
    return exitCode;
}

}  // namespace Vigil
