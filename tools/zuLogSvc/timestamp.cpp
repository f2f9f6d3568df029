// Time stamps by the proleptic Gregorian calendar, and the system's clocks. Any thread.
#include "tools/zuLogSvc/timestamp.h"

#include "platform/thread.h"

#include <boost/date_time/posix_time/posix_time_types.hpp>

#include <cstdio>

namespace zuLogSvc {
namespace {

constexpr std::uint64_t microsecondsPerDay = 86'400'000'000;

struct Moment {
    unsigned year, month, day, hour, minute, second, fraction;
};

/// False after the year 9999.
bool split(std::uint64_t microseconds, Moment& m)
{
    const std::uint64_t days = microseconds / microsecondsPerDay;
    if (days >= 3'141'085) // days from 1400-Jan-01 to 10000-Jan-01
        return false;
    // Counted from 1200-Mar-01, the first day of a 400-year cycle, so that a leap day is the last of its year.
    const auto fromMarch = static_cast<unsigned>(days) + 72'989;
    const unsigned era = fromMarch / 146'097;
    const unsigned dayOfEra = fromMarch % 146'097;
    const unsigned yearOfEra = (dayOfEra - dayOfEra / 1460 + dayOfEra / 36'524 - dayOfEra / 146'096) / 365;
    const unsigned dayOfYear = dayOfEra - (365 * yearOfEra + yearOfEra / 4 - yearOfEra / 100);
    const unsigned month = (5 * dayOfYear + 2) / 153;
    m.day = dayOfYear - (153 * month + 2) / 5 + 1;
    m.month = month < 10 ? month + 3 : month - 9;
    m.year = 1200 + era * 400 + yearOfEra + (m.month <= 2 ? 1 : 0);
    const std::uint64_t inDay = microseconds % microsecondsPerDay;
    m.fraction = static_cast<unsigned>(inDay % 1'000'000);
    const auto seconds = static_cast<unsigned>(inDay / 1'000'000);
    m.second = seconds % 60;
    m.minute = seconds / 60 % 60;
    m.hour = seconds / 3600;
    return true;
}

} // namespace

std::string formatTime(std::uint64_t microseconds)
{
    static constexpr const char* months[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                             "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
    Moment m{};
    if (!split(microseconds, m))
        return "not-a-date-time";
    char text[64];
    int size = std::snprintf(text, sizeof text, "%04u-%s-%02u %02u:%02u:%02u", m.year, months[m.month - 1], m.day,
                             m.hour, m.minute, m.second);
    if (m.fraction != 0)
        size += std::snprintf(text + size, sizeof text - static_cast<std::size_t>(size), ".%06u", m.fraction);
    return {text, static_cast<std::size_t>(size)};
}

std::string formatIsoTime(std::uint64_t microseconds)
{
    Moment m{};
    if (!split(microseconds, m))
        return {};
    char text[64];
    const int size = std::snprintf(text, sizeof text, "%04u-%02u-%02uT%02u:%02u:%02u.%06u", m.year, m.month, m.day,
                                   m.hour, m.minute, m.second, m.fraction);
    return {text, static_cast<std::size_t>(size)};
}

std::uint64_t Clock::localMicroseconds() const
{
    static const boost::posix_time::ptime start(boost::gregorian::date(1400, 1, 1));
    return static_cast<std::uint64_t>((boost::posix_time::microsec_clock::local_time() - start).total_microseconds());
}

std::uint64_t Clock::steadyMilliseconds() const { return zuPlatform::steadyNanoseconds() / 1'000'000; }

const Clock& systemClock()
{
    static const Clock clock;
    return clock;
}

} // namespace zuLogSvc
