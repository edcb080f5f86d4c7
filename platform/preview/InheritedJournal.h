// A journal that a process and the children it starts append records to: an
// unnamed file in memory whose descriptor the children inherit, named to them
// by an environment variable. The preview's stand-ins for the system tools and
// the install-manager library record each call in it.
//
//   std::optional<InheritedJournal> journal = InheritedJournal::create();
//   Task::launchedTaskWithLaunchPath(tool, args, {.inheritedDescriptors = {journal->descriptor()},
//       .environment = {{InheritedJournal::kEnvironmentVariable, journal->environmentValue()}}});
//   ...in the child:  InheritedJournal::appendToInherited({"/usr/sbin/pkgutil", "--forget", "x"});
//   ...afterwards:    journal->records()  // {{"/usr/sbin/pkgutil", "--forget", "x"}}
//
// A record is its fields joined by a tab and ended by a line feed; a
// backslash, tab, line feed or carriage return inside a field is written as
// \\, \t, \n or \r, so every record is one line whatever its fields hold.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <system_error>
#include <vector>

#include "platform/PosixIO.h"

namespace platform {

class InheritedJournal {
public:
    using Record = std::vector<std::string>;

    // Holds the journal's descriptor number in a child's environment.
    static constexpr const char* kEnvironmentVariable = "REMOVER_PREVIEW_JOURNAL_FD";

    // A new, empty journal; none, with the reason in `error`, when no file
    // can be made.
    static std::optional<InheritedJournal> create(std::error_code* error = nullptr);

    // The descriptor a child must inherit, and its number as the value of
    // kEnvironmentVariable.
    int descriptor() const noexcept { return theFd.get(); }
    std::string environmentValue() const;

    // Every whole record appended so far, in order. A line that was not
    // finished is passed over; damaged bytes never fail the read.
    std::vector<Record> records(std::error_code* error = nullptr) const;

    // Appends one record to the journal the environment names, in one write
    // at its end, so records stay whole even when processes write at once.
    // False when the environment names none or the write fails.
    static bool appendToInherited(const Record& fields);

    static std::string encode(const Record& fields);
    static std::vector<Record> decode(std::string_view bytes);

private:
    explicit InheritedJournal(posix::UniqueFd fd) : theFd(std::move(fd)) {}
    posix::UniqueFd theFd;
};

}  // namespace platform
