#include "platform/Date.h"

#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstdio>

namespace platform {

namespace {

// 4001-01-01 00:00:00 UTC.
constexpr double distantFutureSeconds = 64092211200.0;
// 0001-01-01 00:00:00 UTC in the Julian calendar that dates before the
// Gregorian reform are told in.
constexpr double distantPastSeconds = -62135769600.0;
// The first day of the Gregorian calendar, 1582-10-15, in days since 1970.
constexpr int64_t gregorianReformDay = -141427;

struct CivilDate {
    int64_t year;
    unsigned month;
    unsigned day;
};

// Proleptic Gregorian calendar date of a day counted from 1970-01-01.
CivilDate gregorianDateFromDays(int64_t days)
{
    days += 719468;
    const int64_t era = (days >= 0 ? days : days - 146096) / 146097;
    const int64_t dayOfEra = days - era * 146097;
    const int64_t yearOfEra = (dayOfEra - dayOfEra / 1460 + dayOfEra / 36524 - dayOfEra / 146096) / 365;
    const int64_t dayOfYear = dayOfEra - (365 * yearOfEra + yearOfEra / 4 - yearOfEra / 100);
    const int64_t shiftedMonth = (5 * dayOfYear + 2) / 153;
    const auto day = static_cast<unsigned>(dayOfYear - (153 * shiftedMonth + 2) / 5 + 1);
    const auto month = static_cast<unsigned>(shiftedMonth < 10 ? shiftedMonth + 3 : shiftedMonth - 9);
    return {yearOfEra + era * 400 + (month <= 2 ? 1 : 0), month, day};
}

// Julian calendar date of a day counted from 1970-01-01.
CivilDate julianDateFromDays(int64_t days)
{
    // Days since 0000-03-01 in the Julian calendar, in four-year cycles.
    days += 719470;
    const int64_t cycle = (days >= 0 ? days : days - 1460) / 1461;
    const int64_t dayOfCycle = days - cycle * 1461;
    const int64_t yearOfCycle = (dayOfCycle - dayOfCycle / 1460) / 365;
    const int64_t dayOfYear = dayOfCycle - 365 * yearOfCycle;
    const int64_t shiftedMonth = (5 * dayOfYear + 2) / 153;
    const auto day = static_cast<unsigned>(dayOfYear - (153 * shiftedMonth + 2) / 5 + 1);
    const auto month = static_cast<unsigned>(shiftedMonth < 10 ? shiftedMonth + 3 : shiftedMonth - 9);
    return {yearOfCycle + cycle * 4 + (month <= 2 ? 1 : 0), month, day};
}

}  // namespace

Date Date::now()
{
    const auto sinceEpoch = std::chrono::system_clock::now().time_since_epoch();
    return Date(std::chrono::duration<double>(sinceEpoch).count());
}

Date Date::distantFuture()
{
    return Date(distantFutureSeconds);
}

Date Date::distantPast()
{
    return Date(distantPastSeconds);
}

int Date::compare(const Date& other) const noexcept
{
    if (theSeconds < other.theSeconds) {
        return -1;
    }
    if (theSeconds > other.theSeconds) {
        return 1;
    }
    return 0;
}

std::string Date::description() const
{
    // Far beyond any calendar the dates are told in; keep the arithmetic finite.
    constexpr double limit = 1e15;
    double whole = std::floor(theSeconds);
    if (std::isnan(whole)) {
        whole = 0;
    }
    whole = std::fmax(-limit, std::fmin(limit, whole));
    const auto seconds = static_cast<int64_t>(whole);
    int64_t days = seconds / 86400;
    int64_t secondOfDay = seconds % 86400;
    if (secondOfDay < 0) {
        secondOfDay += 86400;
        --days;
    }
    const CivilDate date = days < gregorianReformDay ? julianDateFromDays(days) : gregorianDateFromDays(days);
    char text[64] = {};
    std::snprintf(text, sizeof text, "%04lld-%02u-%02u %02lld:%02lld:%02lld +0000", static_cast<long long>(date.year),
                  date.month, date.day, static_cast<long long>(secondOfDay / 3600),
                  static_cast<long long>(secondOfDay / 60 % 60), static_cast<long long>(secondOfDay % 60));
    return text;
}

}  // namespace platform
