// The clock of messages, and a moment as text. Any thread.
#pragma once

#include <string>

#include <boost/date_time/posix_time/posix_time_types.hpp>

namespace zuLogging::detail {

/// The present local time, in microseconds.
boost::posix_time::ptime local_now();

/// Has `local_now` ask another clock; null puts the system's back.
void set_local_clock_for_testing(boost::posix_time::ptime (*clock)());

/// Appends the simple string form of `time`, such as "2026-Nov-12 10:58:49.123456", without the fraction if it is 0.
void append_timestamp(std::string& text, const boost::posix_time::ptime& time);

} // namespace zuLogging::detail
