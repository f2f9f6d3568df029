// The calling pattern of every log statement: test first, build nothing when disabled, send at the end of the block.
#pragma once

#include "logging/logstream.h"

#define ZU_LOG_STRINGIFY_(line) #line
#define ZU_LOG_LOCATION_(file, line) file "(" ZU_LOG_STRINGIFY_(line) ")"

/// Logs `text`, a chain of insertions, on `node` at `level_` under the group id `group_`. Nothing in `text` is
/// evaluated unless the message is enabled. Errors and warnings carry the source location.
#define ZU_LOG_GROUP(node, level_, group_, text)                                                                       \
    do {                                                                                                               \
        const ::zuLogging::logstate& zuLogNode = (node);                                                               \
        if (zuLogNode.is_enabled((level_), (group_))) {                                                                \
            ::zuLogging::basic_logstream<char> zuLogStream(zuLogNode);                                                 \
            ::zuLogging::set_level(zuLogStream, (level_));                                                             \
            if (((level_) & (::zuLogging::log_err | ::zuLogging::log_warn)) != 0)                                      \
                zuLogStream << ::zuLogging::location(ZU_LOG_LOCATION_(__FILE__, __LINE__));                            \
            zuLogStream << (group_) << text;                                                                           \
        }                                                                                                              \
    } while (false)

#define ZU_LOG(node, level_, text) ZU_LOG_GROUP(node, level_, ::zuLogging::all_groups, text)
