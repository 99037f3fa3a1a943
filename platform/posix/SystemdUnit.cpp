#include "platform/posix/SystemdUnit.h"

#include <algorithm>
#include <cctype>

namespace Osb::Scm {

namespace {

constexpr size_t kMaxUnitName = 255 - 8;  // systemd's limit, less ".service"

bool EqualNoCase(std::string_view a, std::string_view b) {
    return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) {
               return std::tolower(static_cast<unsigned char>(x)) ==
                      std::tolower(static_cast<unsigned char>(y));
           });
}

// A value on one line of a unit file: '%' starts a specifier, a line break would end the setting
// and a backslash at the end would join the next line to it.
std::string Value(std::string_view text) {
    std::string value;
    for (const char c : text) {
        if (c == '%') {
            value += "%%";
        } else if (c == '\n' || c == '\r') {
            value += ' ';
        } else {
            value += c;
        }
    }
    while (!value.empty() && (value.back() == '\\' || value.back() == ' ')) value.pop_back();
    return value;
}

// A path as one word of a command line or of a list setting: quoted, with the characters that
// quoting and specifiers give a meaning escaped, so that blanks and quotes in it stay part of it.
std::string Word(std::string_view path) {
    std::string word = "\"";
    for (const char c : path) {
        if (c == '"' || c == '\\') word += '\\';
        if (c == '%') word += '%';
        if (c == '\n' || c == '\r') continue;
        word += c;
    }
    word += '"';
    return word;
}

bool NeedsQuotes(std::string_view path) {
    return path.find_first_of(" \t\"'\\%$;") != std::string_view::npos;
}

std::string PathWord(std::string_view path) {
    return NeedsQuotes(path) ? Word(path) : std::string(path);
}

std::string Below(const std::string& root, std::string_view path) {
    if (root.empty() || root == "/") return std::string(path);
    std::string joined = root;
    while (!joined.empty() && joined.back() == '/') joined.pop_back();
    joined += path;
    return joined;
}

}  // namespace

bool ValidUnitName(std::string_view name) {
    if (name.empty() || name.size() > kMaxUnitName || name[0] == '.' || name[0] == '-') {
        return false;
    }
    return std::all_of(name.begin(), name.end(), [](char c) {
        return std::isalnum(static_cast<unsigned char>(c)) || c == ':' || c == '_' || c == '.' ||
               c == '-';
    });
}

std::string FormatUnit(const UnitSettings& settings) {
    std::string text = WithDescription("", settings.description);
    text += "[Unit]\nDescription=" + Value(settings.displayName) + "\n";
    if (!settings.dependencies.empty()) {
        std::string units;
        for (const std::string& name : settings.dependencies) {
            if (!units.empty()) units += ' ';
            units += name + ".service";
        }
        text += "Requires=" + units + "\nAfter=" + units + "\n";
    }
    text += "\n[Service]\nType=notify\nExecStart=" + PathWord(settings.binaryPath) + "\n";
    if (!settings.user.empty()) text += "User=" + Value(settings.user) + "\n";
    const bool ownRoot = settings.systemRoot.empty() || settings.systemRoot == "/";
    if (ownRoot) {
        // systemd makes both folders before the service starts, for its user: the run folder is
        // gone after every boot, and ProtectSystem= would not let the service make either.
        text += "RuntimeDirectory=orvanta\nRuntimeDirectoryPreserve=yes\nStateDirectory=Orvanta\n";
        text += "ReadWritePaths=/run/orvanta /var/lib/Orvanta\n";
    } else {
        text += "Environment=" + Word("VIGIL_SYSTEM_ROOT=" + settings.systemRoot) + "\n";
        text += "ReadWritePaths=" + PathWord(Below(settings.systemRoot, "")) + "\n";
    }
    text +=
        "NoNewPrivileges=yes\n"
        "ProtectSystem=strict\n"
        "CapabilityBoundingSet=CAP_CHOWN CAP_DAC_OVERRIDE CAP_DAC_READ_SEARCH CAP_FOWNER "
        "CAP_SETGID CAP_SETUID\n";
    if (settings.autoStart) text += "\n[Install]\nWantedBy=multi-user.target\n";
    return text;
}

std::string WithDescription(std::string_view unitText, std::string_view description) {
    size_t body = 0;
    while (body < unitText.size() && unitText[body] == '#') {
        const size_t end = unitText.find('\n', body);
        body = end == std::string_view::npos ? unitText.size() : end + 1;
    }
    std::string text;
    size_t start = 0;
    while (start < description.size()) {
        size_t end = description.find('\n', start);
        if (end == std::string_view::npos) end = description.size();
        std::string_view line = description.substr(start, end - start);
        if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
        text += line.empty() ? "#\n" : "# " + std::string(line) + "\n";
        start = end + 1;
    }
    text += unitText.substr(body);
    return text;
}

std::string UnitUser(std::string_view account) {
    const size_t separator = account.rfind('\\');
    const std::string_view user =
        separator == std::string_view::npos ? account : account.substr(separator + 1);
    if (EqualNoCase(user, "LocalSystem") || EqualNoCase(user, "SYSTEM")) return {};
    return std::string(user);
}

}  // namespace Osb::Scm
