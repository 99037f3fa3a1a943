// The event log.
//
// Events are written to the systemd journal where it runs, one entry each (MESSAGE, PRIORITY,
// SYSLOG_IDENTIFIER the event source, MESSAGE_ID, VIGIL_EVENT_ID), elsewhere or when the journal
// refuses them to syslog(3) under the event source's name. When the environment variable
// VIGIL_EVENT_LOG names a file, each is also appended to it as one line: the id as 0x%08X, one
// blank, and the message text with its inserts filled in, each CR LF inside it turned into one
// blank and the final one dropped. An id without a text in the message table is written as the id
// alone. The journal's MESSAGE is that text without the id, its inner line breaks kept as line
// feeds; the id alone for an id without a text.
//
// Texts come from the program's message table (MessageTable.h) in the language that the
// environment selects: the first of LC_ALL, LC_MESSAGES and LANG that is set.
#pragma once

#include <cstdint>
#include <initializer_list>
#include <string>
#include <string_view>

namespace Osb {

// Writes event `id` with its inserts (%1, %2, ... in the text). Never raises.
void SysLogEvent(uint32_t id, std::initializer_list<std::u16string_view> inserts = {});

// Writes the text of `id`, inserts filled in, as UTF-16 with a terminating zero unit into `buffer`
// of `size` bytes, cut to fit. Returns the number of units written without the terminator; 0, with
// an empty text in the buffer, when the table has no text for `id`.
uint32_t SysLogGetMessage(uint32_t size, char16_t* buffer, uint32_t id,
                          std::initializer_list<std::u16string_view> inserts = {});

// Registers the event source `name` with the message file `path`: the registry value
// EventMessageFile of HKEY_LOCAL_MACHINE\SYSTEM\CurrentControlSet\Services\EventLog\Application\NAME.
// Raises ExSystem on failure.
void SysLogInstall(const std::u16string& name, const std::u16string& path);
// Removes that key. A source that is not registered is no failure. Raises ExSystem on failure.
void SysLogUninstall(const std::u16string& name);

}  // namespace Osb
