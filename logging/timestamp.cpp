// The clock of messages, and a moment as text, written digit by digit: a stream with a facet costs more than the rest
// of a line. Any thread.
#include "logging/timestamp.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdint>

namespace zuLogging::detail {

namespace {

using clock_function = boost::posix_time::ptime (*)();

std::atomic<clock_function> testing_clock{nullptr};

constexpr std::array<const char*, 12> month_names = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                                     "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};

char* put_digits(char* at, std::uint32_t value, unsigned digits)
{
    for (unsigned i = digits; i-- > 0; value /= 10)
        at[i] = static_cast<char>('0' + value % 10);
    return at + digits;
}

constexpr std::size_t date_size = 11;

/// A day as text, kept for each thread: taking a date apart costs more than the rest of a time stamp.
struct dated_text {
    std::uint32_t day;
    char text[date_size];
};

const char* date_text(const boost::gregorian::date& date)
{
    thread_local dated_text last{0, {}};
    const std::uint32_t day = date.day_number();
    if (last.day != day) {
        const auto parts = date.year_month_day();
        char* at = put_digits(last.text, parts.year, 4);
        *at++ = '-';
        for (const char* month = month_names[parts.month.as_number() - 1u]; *month != 0; ++month)
            *at++ = *month;
        *at++ = '-';
        put_digits(at, parts.day.as_number(), 2);
        last.day = day;
    }
    return last.text;
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
    const auto day_ticks = static_cast<std::uint64_t>(time.time_of_day().total_microseconds());
    const auto seconds = static_cast<std::uint32_t>(day_ticks / 1'000'000);
    const auto fraction = static_cast<std::uint32_t>(day_ticks % 1'000'000);

    std::array<char, date_size + 16> buffer;
    char* at = std::copy_n(date_text(time.date()), date_size, buffer.data());
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
