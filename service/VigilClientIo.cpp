#include "service/VigilClientIo.h"

#include "platform/SysLog.h"
#include "service/VigilExceptions.h"

namespace Vigil {

void LogIoFailure(const Osb::ExSystem& error) {
    Osb::SysLogEvent(MessageId::kSystemError);
    Osb::SysLogEvent(error.status());
}

void ClientRead::completed(const Osb::SmartPointer<Osb::IoRequest>& request, uint32_t bytes) {
    if (!client_.held()) return;
    if (bytes == 0) {
        client_->onClosed();
        client_.release();
        return;
    }
    client_->onData(bytes, request->buffer());
}

void ClientRead::cancelled(const Osb::SmartPointer<Osb::IoRequest>&) { client_.release(); }

void ClientRead::failed(const Osb::SmartPointer<Osb::IoRequest>&, const Osb::ExSystem& error) {
    LogIoFailure(error);
    // No read can follow a failed one, so the connection ends here.
    if (client_.held()) client_->onClosed();
    client_.release();
}

void ClientWrite::completed(const Osb::SmartPointer<Osb::IoRequest>& request, uint32_t) {
    if (client_.held()) client_->onWritten(request->length());
    client_.release();
}

void ClientWrite::cancelled(const Osb::SmartPointer<Osb::IoRequest>& request) {
    if (client_.held()) client_->onWritten(request->length());
    client_.release();
}

void ClientWrite::failed(const Osb::SmartPointer<Osb::IoRequest>& request,
                         const Osb::ExSystem& error) {
    LogIoFailure(error);
    if (client_.held()) {
        // The platform has closed the connection: the replies behind this one are cancelled.
        client_->onClosed();
        client_->onWritten(request->length());
    }
    client_.release();
}

}  // namespace Vigil
