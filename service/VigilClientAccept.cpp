#include "service/VigilClientAccept.h"

#include <cstdio>

#include "service/VigilClient.h"

namespace Vigil {

void ClientAccept::accepted(const Osb::SmartPointer<Osb::IoDevice>& device) {
    Osb::SmartPointer<Client> client = Client::create(device);
    client->startRead();
    std::printf("- Client Connect : %d\n", static_cast<int>(client->id));
    std::fflush(stdout);
}

}  // namespace Vigil
