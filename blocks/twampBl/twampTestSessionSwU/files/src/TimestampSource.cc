#include "TimestampSource.h"

#include <linux/net_tstamp.h>

#include <cstdlib>
#include <cstring>

#include "TraceFacade.h"

static_assert(TimestampSource::kHardwareOptionValue ==
                  (SOF_TIMESTAMPING_TX_HARDWARE | SOF_TIMESTAMPING_RX_HARDWARE |
                   SOF_TIMESTAMPING_RAW_HARDWARE),
              "hardware timestamping flags");
static_assert(TimestampSource::kSoftwareOptionValue ==
                  (SOF_TIMESTAMPING_TX_SOFTWARE | SOF_TIMESTAMPING_RX_SOFTWARE |
                   SOF_TIMESTAMPING_SOFTWARE),
              "software timestamping flags");

namespace {

TimestampSource& currentSource() {
    static TimestampSource source;
    return source;
}

}  // namespace

TimestampSource::TimestampSource(Kind kind) : kind(kind) {}

TimestampSource::Kind TimestampSource::getKind() const {
    return kind;
}

int TimestampSource::getOptionValue() const {
    return (kind == Kind::kSoftware) ? kSoftwareOptionValue : kHardwareOptionValue;
}

std::size_t TimestampSource::getTimespecIndex() const {
    return (kind == Kind::kSoftware) ? kSoftwareTimespecIndex : kHardwareTimespecIndex;
}

const char* TimestampSource::getName() const {
    return (kind == Kind::kSoftware) ? "software" : "hardware";
}

TimestampSource TimestampSource::fromSetting(const char* value) {
    if (value == nullptr || std::strcmp(value, "hardware") == 0) {
        return TimestampSource(Kind::kHardware);
    }
    if (std::strcmp(value, "software") == 0) {
        return TimestampSource(Kind::kSoftware);
    }
    TRACE_ERROR("Unknown TWAMP_TIMESTAMPING value '%s', using hardware", value);
    return TimestampSource(Kind::kHardware);
}

TimestampSource TimestampSource::configureFromEnvironment() {
    const TimestampSource source = fromSetting(std::getenv(kEnvironmentVariable));
    setCurrent(source);
    TRACE_INFO("Timestamping source %s: SO_TIMESTAMPING %d, timespec index %d", source.getName(),
               source.getOptionValue(), static_cast<int>(source.getTimespecIndex()));
    return source;
}

TimestampSource TimestampSource::getCurrent() {
    return currentSource();
}

void TimestampSource::setCurrent(TimestampSource source) {
    currentSource() = source;
}
