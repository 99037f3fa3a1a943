#include "platform/SysLog.h"

#include <fcntl.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <set>
#include <string>

#include "platform/ErrorCode.h"
#include "platform/Exception.h"
#include "platform/MessageTable.h"
#include "platform/Mutex.h"
#include "platform/Platform.h"
#include "platform/Registry.h"
#include "platform/Utf.h"
#include "platform/posix/Journal.h"

namespace Osb {

namespace {

constexpr char16_t kSourcesKey[] = u"SYSTEM\\CurrentControlSet\\Services\\EventLog\\Application\\";
constexpr char kDefaultIdentity[] = "Orvanta Vigil Watch 14.0";

// Serialises openlog, syslog and the appends to the event file, so that the lines of two threads
// never mix. Only those calls run with it held.
Mutex logMutex;
// Every identity handed to openlog. syslog keeps the pointer it was given, so a text once passed
// must stay put for the life of the process: a node of a set does.
std::set<std::string> identities OSB_GUARDED_BY(logMutex);
const std::string* openedIdentity OSB_GUARDED_BY(logMutex) = nullptr;

// Fills in the inserts of a message text the way FormatMessage does: %N (1 to 99), optionally
// followed by a printf format between exclamation marks ("%1!s!"), is insert N; %% is a percent
// sign. A marker without an insert is kept as it stands, as the Windows event viewer shows it.
std::u16string FillInserts(std::u16string_view text,
                           std::initializer_list<std::u16string_view> inserts) {
    std::u16string out;
    out.reserve(text.size());
    size_t i = 0;
    while (i < text.size()) {
        if (text[i] != u'%' || i + 1 == text.size()) {
            out.push_back(text[i++]);
            continue;
        }
        if (text[i + 1] == u'%') {
            out.push_back(u'%');
            i += 2;
            continue;
        }
        size_t end = i + 1;
        size_t number = 0;
        while (end < text.size() && end < i + 3 && text[end] >= u'0' && text[end] <= u'9') {
            number = number * 10 + static_cast<size_t>(text[end] - u'0');
            ++end;
        }
        if (end == i + 1 || number == 0) {
            out.push_back(text[i++]);
            continue;
        }
        if (end < text.size() && text[end] == u'!') {
            const size_t close = text.find(u'!', end + 1);
            if (close != std::u16string_view::npos) end = close + 1;
        }
        if (number <= inserts.size()) {
            out += *(inserts.begin() + (number - 1));
        } else {
            out += text.substr(i, end - i);
        }
        i = end;
    }
    return out;
}

// One line of the event file: "0x%08X", and, when the id has a text, a blank and the text on one
// line, with its final CR LF dropped and every other CR LF turned into one blank. A lone CR or LF,
// which only an insert can bring, becomes a blank too, so that one event stays one line.
std::string EventLine(uint32_t id, std::u16string_view text) {
    char head[16];
    std::snprintf(head, sizeof(head), "0x%08X", static_cast<unsigned>(id));
    std::string line = head;
    if (!text.empty()) {
        if (text.size() >= 2 && text.substr(text.size() - 2) == u"\r\n") text.remove_suffix(2);
        std::u16string folded;
        folded.reserve(text.size());
        for (size_t i = 0; i < text.size(); ++i) {
            if (text[i] == u'\r' && i + 1 < text.size() && text[i + 1] == u'\n') ++i;
            folded.push_back(text[i] == u'\r' || text[i] == u'\n' ? u' ' : text[i]);
        }
        line += ' ';
        line += Utf16ToUtf8(folded);
    }
    line += '\n';
    return line;
}

// The priority from the severity bits of a message id: error 3, warning 4, informational 6, and
// success 5 (notice), so that the service's starts, pauses and stops stand out from informational
// chatter (`journalctl -p notice`).
int Priority(uint32_t id) {
    switch (id >> 30) {
        case 3:
            return LOG_ERR;
        case 2:
            return LOG_WARNING;
        case 1:
            return LOG_INFO;
        default:
            return LOG_NOTICE;
    }
}

// The MESSAGE of a journal entry: the text of the file's line without the id. The journal keeps
// several lines in one entry, so a line break inside the text (only an insert brings one) stays a
// line feed there, where the file folds it. An id without a text is named by itself, as in the
// file, so that no entry is blank.
std::string JournalMessage(uint32_t id, std::u16string_view text) {
    if (text.size() >= 2 && text.substr(text.size() - 2) == u"\r\n") text.remove_suffix(2);
    if (text.empty()) {
        char name[16];
        std::snprintf(name, sizeof(name), "0x%08X", static_cast<unsigned>(id));
        return name;
    }
    std::u16string lines;
    lines.reserve(text.size());
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] == u'\r' && i + 1 < text.size() && text[i + 1] == u'\n') ++i;
        lines.push_back(text[i] == u'\r' ? u'\n' : text[i]);
    }
    return Utf16ToUtf8(lines);
}

// One journal entry for the event; false when the journal does not take it.
bool SendToJournal(uint32_t id, std::u16string_view text, const std::string& identity) {
    char eventId[16];
    std::snprintf(eventId, sizeof(eventId), "0x%08X", static_cast<unsigned>(id));
    const std::string priority = std::to_string(Priority(id));
    const std::string message = JournalMessage(id, text);
    const std::string messageId = Journal::MessageId(id);
    return Journal::Send(Journal::Encode({{"MESSAGE", message},
                                          {"PRIORITY", priority},
                                          {"SYSLOG_IDENTIFIER", identity},
                                          {"MESSAGE_ID", messageId},
                                          {"VIGIL_EVENT_ID", eventId}}));
}

void AppendLine(const char* file, const std::string& line) {
    const int fd = ::open(file, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    if (fd < 0) return;  // the event log never fails its caller
    // One write: with O_APPEND a whole line lands at the end of the file at once, also beside
    // other processes. Only a short write (a full disk) needs a second one.
    size_t done = 0;
    while (done < line.size()) {
        const ssize_t put = ::write(fd, line.data() + done, line.size() - done);
        if (put < 0 && errno == EINTR) continue;
        if (put <= 0) break;
        done += static_cast<size_t>(put);
    }
    ::close(fd);
}

void WriteEvent(uint32_t id, std::initializer_list<std::u16string_view> inserts) {
    const std::u16string text =
        FillInserts(MessageText(id, MessageLanguageFromEnvironment()), inserts);
    const std::string line = EventLine(id, text);
    std::string identity = Utf16ToUtf8(CurrentConfig().applicationName);
    if (identity.empty()) identity = kDefaultIdentity;
    const char* file = std::getenv("VIGIL_EVENT_LOG");
    // The journal where it runs; syslog where it does not, or when it refuses the entry.
    const bool journaled = SendToJournal(id, text, identity);

    MutexLock lock(logMutex);
    if (!journaled) {
        if (openedIdentity == nullptr || *openedIdentity != identity) {
            openedIdentity = &*identities.insert(identity).first;
            ::openlog(openedIdentity->c_str(), LOG_PID, LOG_DAEMON);
        }
        ::syslog(Priority(id), "%.*s", static_cast<int>(line.size() - 1), line.c_str());
    }
    if (file != nullptr && *file != '\0') AppendLine(file, line);
}

}  // namespace

void SysLogEvent(uint32_t id, std::initializer_list<std::u16string_view> inserts) {
    // Events are written after failures: the caller's errno and last error must survive them.
    const int savedErrno = errno;
    try {
        WriteEvent(id, inserts);
    } catch (...) {
        // Out of memory while writing an event: the event is lost, the caller goes on.
    }
    errno = savedErrno;
}

uint32_t SysLogGetMessage(uint32_t size, char16_t* buffer, uint32_t id,
                          std::initializer_list<std::u16string_view> inserts) {
    const uint32_t capacity = size / sizeof(char16_t);
    if (buffer == nullptr || capacity == 0) return 0;
    const std::u16string text =
        FillInserts(MessageText(id, MessageLanguageFromEnvironment()), inserts);
    size_t units = std::min<size_t>(text.size(), capacity - 1);
    // A cut between the two halves of a surrogate pair would leave half a character.
    if (units > 0 && units < text.size() && text[units - 1] >= 0xD800 &&
        text[units - 1] <= 0xDBFF && text[units] >= 0xDC00 && text[units] <= 0xDFFF) {
        --units;
    }
    std::copy_n(text.begin(), units, buffer);
    buffer[units] = u'\0';
    return static_cast<uint32_t>(units);
}

namespace {

// A source is one key below the sources: an empty name or one with a backslash would name the
// sources' own key or a key further down.
void CheckSourceName(const std::u16string& name) {
    if (name.empty() || name.find(u'\\') != std::u16string::npos) {
        throw ExSystem(Err::kInvalidName, OSB_HERE);
    }
}

}  // namespace

void SysLogInstall(const std::u16string& name, const std::u16string& path) {
    CheckSourceName(name);
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
    CheckSourceName(name);
    const int32_t status = RegDeleteKeyW(HKeyLocalMachine(), kSourcesKey + name);
    if (status != 0 && status != static_cast<int32_t>(Err::kFileNotFound)) {
        throw ExSystem(static_cast<uint32_t>(status), OSB_HERE);
    }
}

}  // namespace Osb
