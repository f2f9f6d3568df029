// The clock of messages, and a moment as text, written digit by digit: a stream with a facet costs more than the rest
// of a line. Any thread.
#include "logging/timestamp.h"

#include <array>
#include <atomic>
#include <cstdint>

namespace zuLogging::detail {

namespace {

using clock_function = boost::posix_time::ptime (*)();

std::atomic<clock_function> testing_clock{nullptr};

constexpr std::array<const char*, 12> month_names = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                                     "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};

char* put_digits(char* at, std::uint64_t value, unsigned digits)
{
    for (unsigned i = digits; i-- > 0; value /= 10)
        at[i] = static_cast<char>('0' + value % 10);
    return at + digits;
}

} // namespace

boost::posix_time::ptime local_now()
{
    const clock_function clock = testing_clock.load(std::memory_order_relaxed);
    return clock != nullptr ? clock() : boost::posix_time::microsec_clock::local_time();
}

void set_local_clock_for_testing(boost::posix_time::ptime (*clock)())
{
    testing_clock.store(clock, std::memory_order_relaxed);
}

void append_timestamp(std::string& text, const boost::posix_time::ptime& time)
{
    if (time.is_special()) {
        text += time.is_pos_infinity() ? "+infinity" : time.is_neg_infinity() ? "-infinity" : "not-a-date-time";
        return;
    }
    const auto date = time.date().year_month_day();
    const auto day_ticks = static_cast<std::uint64_t>(time.time_of_day().total_microseconds());
    const std::uint64_t seconds = day_ticks / 1'000'000;
    const std::uint64_t fraction = day_ticks % 1'000'000;

    std::array<char, 27> buffer;
    char* at = put_digits(buffer.data(), date.year, 4);
    *at++ = '-';
    for (const char* month = month_names[static_cast<std::size_t>(date.month.as_number() - 1)]; *month != 0; ++month)
        *at++ = *month;
    *at++ = '-';
    at = put_digits(at, date.day.as_number(), 2);
    *at++ = ' ';
    at = put_digits(at, seconds / 3600, 2);
    *at++ = ':';
    at = put_digits(at, seconds / 60 % 60, 2);
    *at++ = ':';
    at = put_digits(at, seconds % 60, 2);
    if (fraction != 0) {
        *at++ = '.';
        at = put_digits(at, fraction, 6);
    }
    text.append(buffer.data(), static_cast<std::size_t>(at - buffer.data()));
}

} // namespace zuLogging::detail
