// A point in time, seconds since 1970 in UTC.
#pragma once

#include <string>

namespace platform {

class Date {
public:
    static Date now();
    static Date distantFuture();
    static Date distantPast();
    explicit Date(double secondsSince1970) : theSeconds(secondsSince1970) {}

    Date addingTimeInterval(double seconds) const { return Date(theSeconds + seconds); }
    double timeIntervalSince1970() const noexcept { return theSeconds; }
    // -1, 0 or 1 as this date is earlier than, equal to or later than other.
    int compare(const Date& other) const noexcept;
    // "2026-11-21 04:37:11 +0000"
    std::string description() const;

private:
    double theSeconds;
};

}  // namespace platform
