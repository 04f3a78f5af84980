// Which kernel timestamps the daemon measures with.
//
// Hardware timestamps taken by the network interface are the default. Hosts
// whose interfaces cannot take them (virtual machines, containers, veth and
// loopback) select software timestamps with TWAMP_TIMESTAMPING=software. The
// choice decides the SO_TIMESTAMPING flags of the socket and which of the
// three timespecs of an SCM_TIMESTAMPING message is read.
//
// The current source is process-wide: the socket sets it when it is
// configured, and every later timestamp read uses it.
#ifndef TWAMP_TIMESTAMP_SOURCE_H
#define TWAMP_TIMESTAMP_SOURCE_H

#include <cstddef>

class TimestampSource {
  public:
    enum class Kind { kHardware, kSoftware };

    // SOF_TIMESTAMPING_TX_HARDWARE | RX_HARDWARE | RAW_HARDWARE.
    static constexpr int kHardwareOptionValue = 69;
    // SOF_TIMESTAMPING_TX_SOFTWARE | RX_SOFTWARE | SOFTWARE.
    static constexpr int kSoftwareOptionValue = 26;
    // The raw hardware time is the third timespec, the software time the first.
    static constexpr std::size_t kHardwareTimespecIndex = 2;
    static constexpr std::size_t kSoftwareTimespecIndex = 0;
    // The environment variable that selects the source.
    static constexpr const char* kEnvironmentVariable = "TWAMP_TIMESTAMPING";

    explicit TimestampSource(Kind kind = Kind::kHardware);

    // The kind of timestamps.
    Kind getKind() const;
    // The SO_TIMESTAMPING option value that asks the kernel for them.
    int getOptionValue() const;
    // Index of their timespec in the SCM_TIMESTAMPING data.
    std::size_t getTimespecIndex() const;
    // "hardware" or "software".
    const char* getName() const;

    // The source named by value: "hardware", "software", or null for the
    // default (hardware); any other value is traced at ERROR and gives hardware.
    static TimestampSource fromSetting(const char* value);
    // Reads TWAMP_TIMESTAMPING, makes its source the current one and traces it.
    static TimestampSource configureFromEnvironment();
    // The process's current source; hardware until one is configured.
    static TimestampSource getCurrent();
    // Replaces the process's current source.
    static void setCurrent(TimestampSource source);

  private:
    Kind kind;
};

#endif  // TWAMP_TIMESTAMP_SOURCE_H
