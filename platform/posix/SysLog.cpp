#include "platform/SysLog.h"

#include <fcntl.h>
#include <syslog.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <mutex>

#include "platform/ErrorCode.h"
#include "platform/Exception.h"
#include "platform/MessageTable.h"
#include "platform/Platform.h"
#include "platform/Registry.h"
#include "platform/Utf.h"

namespace Osb {

namespace {

constexpr char16_t kSourcesKey[] = u"SYSTEM\\CurrentControlSet\\Services\\EventLog\\Application\\";

// Serialises openlog and the appends to the event file, so lines of two threads never mix.
std::mutex logMutex;
std::string openedIdentity;  // guarded by logMutex; syslog keeps a pointer to it

// The text of `id` with %N!s! and %N replaced by insert N (from 1).
std::u16string Format(std::u16string_view text,
                      std::initializer_list<std::u16string_view> inserts) {
    std::u16string out;
    out.reserve(text.size());
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] == u'%' && i + 1 < text.size() && text[i + 1] >= u'1' && text[i + 1] <= u'9') {
            size_t n = static_cast<size_t>(text[i + 1] - u'1');
            i += 1;
            if (i + 3 < text.size() && text.substr(i + 1, 3) == u"!s!") i += 3;
            if (n < inserts.size()) out += *(inserts.begin() + n);
            continue;
        }
        out.push_back(text[i]);
    }
    return out;
}

std::string EventLine(uint32_t id, const std::u16string& text) {
    char head[16];
    std::snprintf(head, sizeof(head), "0x%08X", id);
    std::string line = head;
    if (!text.empty()) {
        std::u16string_view body = text;
        if (body.size() >= 2 && body.substr(body.size() - 2) == u"\r\n") {
            body.remove_suffix(2);
        }
        std::u16string folded;
        folded.reserve(body.size());
        for (size_t i = 0; i < body.size(); ++i) {
            if (body[i] == u'\r' && i + 1 < body.size() && body[i + 1] == u'\n') {
                folded.push_back(u' ');
                ++i;
            } else {
                folded.push_back(body[i]);
            }
        }
        line.push_back(' ');
        line.append(Utf16ToUtf8(folded));
    }
    line.push_back('\n');
    return line;
}

}  // namespace

void SysLogEvent(uint32_t id, std::initializer_list<std::u16string_view> inserts) {
    std::u16string text = Format(MessageText(id, MessageLanguageFromEnvironment()), inserts);
    std::string line = EventLine(id, text);
    const int priority = (id >> 30) == 3 ? LOG_ERR : (id >> 30) == 2 ? LOG_WARNING : LOG_INFO;

    std::lock_guard<std::mutex> lock(logMutex);
    std::string identity = Utf16ToUtf8(CurrentConfig().applicationName);
    if (identity.empty()) identity = "Orvanta Vigil Watch 14.0";
    if (identity != openedIdentity) {
        openedIdentity = identity;
        ::openlog(openedIdentity.c_str(), LOG_PID, LOG_DAEMON);
    }
    ::syslog(priority, "%.*s", static_cast<int>(line.size() - 1), line.c_str());

    const char* file = std::getenv("VIGIL_EVENT_LOG");
    if (file == nullptr || *file == '\0') return;
    int fd = ::open(file, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    if (fd < 0) return;  // the event log never fails its caller
    ssize_t ignored = ::write(fd, line.data(), line.size());
    (void)ignored;
    ::close(fd);
}

uint32_t SysLogGetMessage(uint32_t size, char16_t* buffer, uint32_t id,
                          std::initializer_list<std::u16string_view> inserts) {
    uint32_t capacity = size / sizeof(char16_t);
    if (capacity == 0) return 0;
    std::u16string text = Format(MessageText(id, MessageLanguageFromEnvironment()), inserts);
    uint32_t units = static_cast<uint32_t>(std::min<size_t>(text.size(), capacity - 1));
    std::copy(text.begin(), text.begin() + units, buffer);
    buffer[units] = u'\0';
    return units;
}

void SysLogInstall(const std::u16string& name, const std::u16string& path) {
    HKey key = nullptr;
    int32_t status =
        RegCreateKeyExW(HKeyLocalMachine(), kSourcesKey + name, Reg::kKeyWrite, &key, nullptr);
    if (status != 0) throw ExSystem(static_cast<uint32_t>(status), OSB_HERE);
    status = RegSetValueExW(key, u"EventMessageFile", Reg::kTypeSz,
                            reinterpret_cast<const uint8_t*>(path.c_str()),
                            static_cast<uint32_t>((path.size() + 1) * sizeof(char16_t)));
    RegCloseKey(key);
    if (status != 0) throw ExSystem(static_cast<uint32_t>(status), OSB_HERE);
}

void SysLogUninstall(const std::u16string& name) {
    int32_t status = RegDeleteKeyW(HKeyLocalMachine(), kSourcesKey + name);
    if (status != 0 && status != static_cast<int32_t>(Err::kFileNotFound)) {
        throw ExSystem(static_cast<uint32_t>(status), OSB_HERE);
    }
}

}  // namespace Osb
