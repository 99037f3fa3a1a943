#include "service/VigilClientAccept.h"

#include <cstdio>

#include "service/VigilClient.h"

namespace Vigil {

void ClientAccept::accepted(const Osb::SmartPointer<Osb::IoDevice>& device) {
    Osb::SmartPointer<Client> client = Client::create(device);
    // Traced before the first read opens: its end may come at once, and its disconnect trace
    // must follow this one.
    std::printf("- Client Connect : %d\n", static_cast<int>(client->id));
    std::fflush(stdout);
    client->startRead();
}

}  // namespace Vigil
