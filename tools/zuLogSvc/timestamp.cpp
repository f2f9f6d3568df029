// Time stamps by the proleptic Gregorian calendar, and the system's clocks. Any thread.
#include "tools/zuLogSvc/timestamp.h"

#include "platform/clock.h"

#include <boost/date_time/posix_time/posix_time_types.hpp>

#include <chrono>
#include <cstdio>
#include <optional>

namespace zuLogSvc {
namespace {

using namespace std::chrono;

struct Moment {
    year_month_day date;
    hh_mm_ss<microseconds> time;
    int year() const { return static_cast<int>(date.year()); }
    unsigned month() const { return static_cast<unsigned>(date.month()); }
    unsigned day() const { return static_cast<unsigned>(date.day()); }
    int hour() const { return static_cast<int>(time.hours().count()); }
    int minute() const { return static_cast<int>(time.minutes().count()); }
    int second() const { return static_cast<int>(time.seconds().count()); }
    int fraction() const { return static_cast<int>(time.subseconds().count()); }
};

/// None after the year 9999.
std::optional<Moment> split(std::uint64_t count)
{
    constexpr sys_days start = std::chrono::year(1400) / January / 1;
    constexpr sys_days end = std::chrono::year(10000) / January / 1;
    if (count >= static_cast<std::uint64_t>(microseconds(end - start).count()))
        return std::nullopt;
    const microseconds since(static_cast<std::int64_t>(count));
    const auto whole = floor<days>(since);
    return Moment{year_month_day(start + whole), hh_mm_ss<microseconds>(since - whole)};
}

} // namespace

std::string formatTime(std::uint64_t microseconds)
{
    static constexpr const char* months[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                             "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
    const auto m = split(microseconds);
    if (!m)
        return "not-a-date-time";
    char text[64];
    int size = std::snprintf(text, sizeof text, "%04d-%s-%02u %02d:%02d:%02d", m->year(), months[m->month() - 1],
                             m->day(), m->hour(), m->minute(), m->second());
    if (m->fraction() != 0)
        size += std::snprintf(text + size, sizeof text - static_cast<std::size_t>(size), ".%06d", m->fraction());
    return {text, static_cast<std::size_t>(size)};
}

std::string formatIsoTime(std::uint64_t microseconds)
{
    const auto m = split(microseconds);
    if (!m)
        return {};
    char text[64];
    const int size = std::snprintf(text, sizeof text, "%04d-%02u-%02uT%02d:%02d:%02d.%06d", m->year(), m->month(),
                                   m->day(), m->hour(), m->minute(), m->second(), m->fraction());
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
