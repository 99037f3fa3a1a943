// The byte stream of one client through reassembly, dispatch and every handler, against the
// service's real tables on a scratch data folder. Besides the sanitizers, every message cut from
// the stream gets exactly one answer (dispatch never stays silent while its tables exist), and
// each is a reply or an Error that carries exactly one readable reason.
#include <cstdio>
#include <cstdlib>
#include <exception>

#include "fuzz/FuzzSpine.h"
#include "service/VigilProtocol.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    vigil_fuzz::StartScratchService();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    using namespace Vigil::Protocol;
    size_t messages = 0;
    const std::vector<vigil_test::Reply> replies = vigil_fuzz::DriveOneClient(data, size, &messages);
    if (replies.size() != messages) {
        std::fprintf(stderr, "%zu messages got %zu answers\n", messages, replies.size());
        std::abort();
    }
    for (const vigil_test::Reply& reply : replies) {
        if (reply.raw.size() != kHeaderBytes + reply.body.size() ||
            reply.header.bodyLength != reply.body.size()) {
            std::fprintf(stderr, "reply %08x: length field disagrees with the bytes sent\n",
                         reply.header.code);
            std::abort();
        }
        if (reply.header.code == kError) {
            try {
                if (reply.errorTexts().size() != 1) {
                    std::fprintf(stderr, "Error reply without exactly one reason\n");
                    std::abort();
                }
            } catch (const std::exception& e) {
                std::fprintf(stderr, "malformed Error reply: %s\n", e.what());
                std::abort();
            }
        } else if (((reply.header.code >> 8) & 0xFF) != kKindReply) {
            std::fprintf(stderr, "reply code %08x is neither a reply nor an Error\n",
                         reply.header.code);
            std::abort();
        }
    }
    return 0;
}
