// Tests of the operator-log stand-in libSaLog.so through its C interface. Each
// test has its own log directory in SA_LOG_DIR.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include <grp.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "saLog.h"
#include "TextFiles.h"

namespace {

using twamp_test::readFile;
using twamp_test::readLines;

// 2026-11-20T23:12:01.123456789Z in nanoseconds since 1970.
constexpr SaTimeT kStamp = 1795216321LL * SA_TIME_ONE_SECOND + 123456789LL;
const char* const kTimePattern =
    "[0-9]{4}-[0-9]{2}-[0-9]{2}T[0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{6}Z";

// A name of length bytes; the rest of value is filled with 'Z' and never terminated.
SaNameT makeName(const std::string& text) {
    SaNameT name;
    std::memset(name.value, 'Z', sizeof(name.value));
    std::memcpy(name.value, text.data(), std::min(text.size(), sizeof(name.value)));
    name.length = static_cast<SaUint16T>(text.size());
    return name;
}

std::string streamDn(const std::string& id) {
    return "safLgStr=" + id + ",safApp=safLogService";
}

bool fileExists(const std::string& path) {
    struct stat status;
    return stat(path.c_str(), &status) == 0;
}

// The current UTC time in the record's format.
std::string utcNowText() {
    struct timespec clock;
    clock_gettime(CLOCK_REALTIME, &clock);
    struct tm utc;
    gmtime_r(&clock.tv_sec, &utc);
    char text[64];
    std::snprintf(text, sizeof(text), "%04d-%02d-%02dT%02d:%02d:%02d.%06ldZ", utc.tm_year + 1900,
                  utc.tm_mon + 1, utc.tm_mday, utc.tm_hour, utc.tm_min, utc.tm_sec,
                  clock.tv_nsec / 1000);
    return text;
}

// One record with the generic header, the user name and the text given.
struct Record {
    Record(SaLogSeverityT severity, const std::string& user, const std::string& text,
           SaTimeT stamp = kStamp)
        : userName(makeName(user)), body(text.begin(), text.end()) {
        buffer.logBufSize = body.size();
        buffer.logBuf = body.empty() ? nullptr : body.data();
        record.logTimeStamp = stamp;
        record.logHdrType = SA_LOG_GENERIC_HEADER;
        record.logHeader.genericHdr.notificationClassId = nullptr;
        record.logHeader.genericHdr.logSvcUsrName = &userName;
        record.logHeader.genericHdr.logSeverity = severity;
        record.logBuffer = &buffer;
    }
    Record(const Record&) = delete;
    Record& operator=(const Record&) = delete;

    SaNameT userName;
    std::vector<SaUint8T> body;
    SaLogBufferT buffer;
    SaLogRecordT record;
};

class SaLogTest : public ::testing::Test {
  protected:
    void SetUp() override {
        char pattern[] = "/tmp/salog_test.XXXXXX";
        ASSERT_NE(nullptr, mkdtemp(pattern));
        directory = pattern;
        setenv("SA_LOG_DIR", directory.c_str(), 1);
        SaVersionT version = {'A', 2, 1};
        ASSERT_EQ(SA_AIS_OK, saLogInitialize(&handle, nullptr, &version));
    }
    void TearDown() override {
        saLogFinalize(handle);
        unsetenv("SA_LOG_DIR");
        std::system(("rm -rf " + directory).c_str());
    }

    std::string pathOf(const std::string& id) const { return directory + "/" + id + ".log"; }

    // Configures a stream: its file exists with the content given.
    void configure(const std::string& id, const std::string& content = "") const {
        std::ofstream out(pathOf(id), std::ios::binary);
        out << content;
    }

    SaAisErrorT open(const std::string& dn, SaLogStreamHandleT* stream) const {
        const SaNameT name = makeName(dn);
        return saLogStreamOpen_2(handle, &name, nullptr, 0, SA_TIME_ONE_SECOND, stream);
    }

    SaAisErrorT create(const std::string& dn, SaLogStreamHandleT* stream) const {
        const SaNameT name = makeName(dn);
        SaLogFileCreateAttributesT_2 attributes = {};
        return saLogStreamOpen_2(handle, &name, &attributes, SA_LOG_STREAM_CREATE,
                                 SA_TIME_ONE_SECOND, stream);
    }

    // Opens a configured stream by its id; the test fails when that fails.
    SaLogStreamHandleT openConfigured(const std::string& id) const {
        configure(id);
        SaLogStreamHandleT stream = 0;
        EXPECT_EQ(SA_AIS_OK, open(streamDn(id), &stream));
        return stream;
    }

    static SaAisErrorT write(SaLogStreamHandleT stream, const Record& record) {
        return saLogWriteLogAsync(stream, 0, 0, &record.record);
    }

    std::string directory;
    SaLogHandleT handle = 0;
};

// ---- saLogInitialize ----

// A supported version gives a non-zero handle and reports the implemented A.02.01.
TEST_F(SaLogTest, InitializeReportsImplementedVersion) {
    SaLogHandleT other = 0;
    SaVersionT version = {'A', 2, 0};
    ASSERT_EQ(SA_AIS_OK, saLogInitialize(&other, nullptr, &version));
    EXPECT_NE(0u, other);
    EXPECT_EQ('A', version.releaseCode);
    EXPECT_EQ(2, version.majorVersion);
    EXPECT_EQ(1, version.minorVersion);
    EXPECT_EQ(SA_AIS_OK, saLogFinalize(other));
}

// The minor version asked for is ignored.
TEST_F(SaLogTest, InitializeIgnoresMinorVersion) {
    SaLogHandleT other = 0;
    SaVersionT version = {'A', 2, 9};
    ASSERT_EQ(SA_AIS_OK, saLogInitialize(&other, nullptr, &version));
    EXPECT_EQ(1, version.minorVersion);
    EXPECT_EQ(SA_AIS_OK, saLogFinalize(other));
}

// Major version 1 is refused and the supported version is reported.
TEST_F(SaLogTest, InitializeRefusesOlderMajorVersion) {
    SaLogHandleT other = 0;
    SaVersionT version = {'A', 1, 1};
    EXPECT_EQ(SA_AIS_ERR_VERSION, saLogInitialize(&other, nullptr, &version));
    EXPECT_EQ('A', version.releaseCode);
    EXPECT_EQ(2, version.majorVersion);
    EXPECT_EQ(1, version.minorVersion);
    EXPECT_EQ(0u, other);
}

// Major version 3 is refused and the supported version is reported.
TEST_F(SaLogTest, InitializeRefusesNewerMajorVersion) {
    SaLogHandleT other = 0;
    SaVersionT version = {'A', 3, 0};
    EXPECT_EQ(SA_AIS_ERR_VERSION, saLogInitialize(&other, nullptr, &version));
    EXPECT_EQ('A', version.releaseCode);
    EXPECT_EQ(2, version.majorVersion);
    EXPECT_EQ(1, version.minorVersion);
}

// Release code 'B' is refused and release 'A' is reported.
TEST_F(SaLogTest, InitializeRefusesOtherReleaseCode) {
    SaLogHandleT other = 0;
    SaVersionT version = {'B', 2, 1};
    EXPECT_EQ(SA_AIS_ERR_VERSION, saLogInitialize(&other, nullptr, &version));
    EXPECT_EQ('A', version.releaseCode);
    EXPECT_EQ(2, version.majorVersion);
    EXPECT_EQ(1, version.minorVersion);
}

// A NULL handle pointer is an invalid parameter.
TEST_F(SaLogTest, InitializeRefusesNullHandle) {
    SaVersionT version = {'A', 2, 1};
    EXPECT_EQ(SA_AIS_ERR_INVALID_PARAM, saLogInitialize(nullptr, nullptr, &version));
}

// A NULL version pointer is an invalid parameter.
TEST_F(SaLogTest, InitializeRefusesNullVersion) {
    SaLogHandleT other = 0;
    EXPECT_EQ(SA_AIS_ERR_INVALID_PARAM, saLogInitialize(&other, nullptr, nullptr));
}

// Every initialisation gives a handle of its own.
TEST_F(SaLogTest, InitializeGivesDistinctHandles) {
    SaLogHandleT other = 0;
    SaVersionT version = {'A', 2, 1};
    ASSERT_EQ(SA_AIS_OK, saLogInitialize(&other, nullptr, &version));
    EXPECT_NE(handle, other);
    EXPECT_EQ(SA_AIS_OK, saLogFinalize(other));
}

// ---- saLogStreamOpen_2 ----

// A stream whose file does not exist is not configured: NOT_EXIST, and no file appears.
TEST_F(SaLogTest, OpenUnconfiguredStreamIsNotExist) {
    SaLogStreamHandleT stream = 0;
    EXPECT_EQ(SA_AIS_ERR_NOT_EXIST, open(streamDn("TnNetworkLog"), &stream));
    EXPECT_FALSE(fileExists(pathOf("TnNetworkLog")));
}

// A configured stream opens with a non-zero stream handle.
TEST_F(SaLogTest, OpenConfiguredStream) {
    configure("TnNetworkLog");
    SaLogStreamHandleT stream = 0;
    EXPECT_EQ(SA_AIS_OK, open(streamDn("TnNetworkLog"), &stream));
    EXPECT_NE(0u, stream);
}

// Create attributes with the create flag create the stream's file with mode 0640.
TEST_F(SaLogTest, CreateAttributesCreateTheFile) {
    const mode_t previous = umask(022);
    SaLogStreamHandleT stream = 0;
    const SaAisErrorT result = create(streamDn("TnApplicationLog"), &stream);
    umask(previous);
    ASSERT_EQ(SA_AIS_OK, result);
    struct stat status;
    ASSERT_EQ(0, stat(pathOf("TnApplicationLog").c_str(), &status));
    EXPECT_TRUE(S_ISREG(status.st_mode));
    EXPECT_EQ(0640u, status.st_mode & 0777u);
    EXPECT_EQ(0, status.st_size);
}

// Creating a stream whose file exists keeps what the file holds.
TEST_F(SaLogTest, CreateKeepsExistingFile) {
    configure("TnApplicationLog", "earlier record\n");
    SaLogStreamHandleT stream = 0;
    ASSERT_EQ(SA_AIS_OK, create(streamDn("TnApplicationLog"), &stream));
    EXPECT_EQ("earlier record\n", readFile(pathOf("TnApplicationLog")));
}

// Create attributes without the create flag are an invalid parameter.
TEST_F(SaLogTest, CreateAttributesWithoutFlagAreInvalid) {
    const SaNameT name = makeName(streamDn("TnApplicationLog"));
    SaLogFileCreateAttributesT_2 attributes = {};
    SaLogStreamHandleT stream = 0;
    EXPECT_EQ(SA_AIS_ERR_INVALID_PARAM,
              saLogStreamOpen_2(handle, &name, &attributes, 0, SA_TIME_ONE_SECOND, &stream));
    EXPECT_FALSE(fileExists(pathOf("TnApplicationLog")));
}

// The create flag without create attributes is an invalid parameter.
TEST_F(SaLogTest, CreateFlagWithoutAttributesIsInvalid) {
    const SaNameT name = makeName(streamDn("TnApplicationLog"));
    SaLogStreamHandleT stream = 0;
    EXPECT_EQ(SA_AIS_ERR_INVALID_PARAM,
              saLogStreamOpen_2(handle, &name, nullptr, SA_LOG_STREAM_CREATE, SA_TIME_ONE_SECOND,
                                &stream));
}

// An unknown open flag is refused as a bad flag.
TEST_F(SaLogTest, OpenRefusesUnknownFlag) {
    configure("TnApplicationLog");
    const SaNameT name = makeName(streamDn("TnApplicationLog"));
    SaLogStreamHandleT stream = 0;
    EXPECT_EQ(SA_AIS_ERR_BAD_FLAGS,
              saLogStreamOpen_2(handle, &name, nullptr, 0x2, SA_TIME_ONE_SECOND, &stream));
}

// A handle that was never given out is a bad handle.
TEST_F(SaLogTest, OpenWithUnknownHandleIsBadHandle) {
    configure("TnNetworkLog");
    const SaNameT name = makeName(streamDn("TnNetworkLog"));
    SaLogStreamHandleT stream = 0;
    EXPECT_EQ(SA_AIS_ERR_BAD_HANDLE,
              saLogStreamOpen_2(handle + 1000, &name, nullptr, 0, SA_TIME_ONE_SECOND, &stream));
}

// A finalised handle is a bad handle.
TEST_F(SaLogTest, OpenAfterFinalizeIsBadHandle) {
    configure("TnNetworkLog");
    ASSERT_EQ(SA_AIS_OK, saLogFinalize(handle));
    SaLogStreamHandleT stream = 0;
    EXPECT_EQ(SA_AIS_ERR_BAD_HANDLE, open(streamDn("TnNetworkLog"), &stream));
}

// A NULL stream name is an invalid parameter.
TEST_F(SaLogTest, OpenRefusesNullName) {
    SaLogStreamHandleT stream = 0;
    EXPECT_EQ(SA_AIS_ERR_INVALID_PARAM,
              saLogStreamOpen_2(handle, nullptr, nullptr, 0, SA_TIME_ONE_SECOND, &stream));
}

// A NULL stream handle pointer is an invalid parameter.
TEST_F(SaLogTest, OpenRefusesNullStreamHandle) {
    configure("TnNetworkLog");
    const SaNameT name = makeName(streamDn("TnNetworkLog"));
    EXPECT_EQ(SA_AIS_ERR_INVALID_PARAM,
              saLogStreamOpen_2(handle, &name, nullptr, 0, SA_TIME_ONE_SECOND, nullptr));
}

// A directory in place of the stream's file is a library error.
TEST_F(SaLogTest, OpenDirectoryIsLibraryError) {
    ASSERT_EQ(0, mkdir(pathOf("TnNetworkLog").c_str(), 0755));
    SaLogStreamHandleT stream = 0;
    EXPECT_EQ(SA_AIS_ERR_LIBRARY, open(streamDn("TnNetworkLog"), &stream));
}

// A FIFO without a reader fails at once instead of blocking the caller.
TEST_F(SaLogTest, OpenFifoWithoutReaderFails) {
    ASSERT_EQ(0, mkfifo(pathOf("TnNetworkLog").c_str(), 0640));
    SaLogStreamHandleT stream = 0;
    EXPECT_EQ(SA_AIS_ERR_LIBRARY, open(streamDn("TnNetworkLog"), &stream));
}

// A missing log directory leaves every stream unconfigured.
TEST_F(SaLogTest, MissingDirectoryIsNotExist) {
    setenv("SA_LOG_DIR", (directory + "/missing").c_str(), 1);
    SaLogStreamHandleT stream = 0;
    EXPECT_EQ(SA_AIS_ERR_NOT_EXIST, create(streamDn("TnNetworkLog"), &stream));
}

// A file the caller may not write is an access error. Root may write any file,
// so the open then runs in a child process that has dropped to user nobody.
TEST_F(SaLogTest, OpenUnwritableFileIsAccessError) {
    configure("TnNetworkLog");
    ASSERT_EQ(0, chmod(pathOf("TnNetworkLog").c_str(), 0440));
    ASSERT_EQ(0, chmod(directory.c_str(), 0755));
    const pid_t child = fork();
    ASSERT_NE(-1, child);
    if (child == 0) {
        if (geteuid() == 0 &&
            (setgroups(0, nullptr) != 0 || setgid(65534) != 0 || setuid(65534) != 0)) {
            _exit(100);
        }
        SaLogStreamHandleT stream = 0;
        _exit(static_cast<int>(open(streamDn("TnNetworkLog"), &stream)));
    }
    int status = 0;
    ASSERT_EQ(child, waitpid(child, &status, 0));
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(SA_AIS_ERR_ACCESS, WEXITSTATUS(status));
}

// ---- Stream names ----

// The stream id is the value of the first RDN; the file is <id>.log in the log directory.
TEST_F(SaLogTest, StreamIdIsFirstRdnValue) {
    configure("TnNetworkLog");
    SaLogStreamHandleT stream = 0;
    ASSERT_EQ(SA_AIS_OK, open("safLgStr=TnNetworkLog,safApp=safLogService", &stream));
    ASSERT_EQ(SA_AIS_OK, write(stream, Record(SA_LOG_SEV_INFO, "TWAMP", "first")));
    EXPECT_EQ("2026-11-20T23:12:01.123456Z INFO TWAMP first\n", readFile(pathOf("TnNetworkLog")));
}

// A DN of one RDN names the stream by its whole value.
TEST_F(SaLogTest, SingleRdnNamesStream) {
    configure("Solo");
    SaLogStreamHandleT stream = 0;
    EXPECT_EQ(SA_AIS_OK, open("safLgStr=Solo", &stream));
}

// The attribute type of the first RDN is not interpreted.
TEST_F(SaLogTest, AnyRdnTypeNamesStream) {
    configure("saLogSystem");
    SaLogStreamHandleT stream = 0;
    EXPECT_EQ(SA_AIS_OK, open(SA_LOG_STREAM_SYSTEM, &stream));
}

// A name without '=' is malformed.
TEST_F(SaLogTest, NameWithoutEqualsIsInvalid) {
    configure("TnNetworkLog");
    SaLogStreamHandleT stream = 0;
    EXPECT_EQ(SA_AIS_ERR_INVALID_PARAM, open("TnNetworkLog", &stream));
}

// An empty first RDN value is malformed.
TEST_F(SaLogTest, EmptyValueIsInvalid) {
    SaLogStreamHandleT stream = 0;
    EXPECT_EQ(SA_AIS_ERR_INVALID_PARAM, open("safLgStr=,safApp=safLogService", &stream));
}

// A first RDN without an attribute type is malformed.
TEST_F(SaLogTest, EmptyAttributeTypeIsInvalid) {
    configure("TnNetworkLog");
    SaLogStreamHandleT stream = 0;
    EXPECT_EQ(SA_AIS_ERR_INVALID_PARAM, open("=TnNetworkLog,safApp=safLogService", &stream));
}

// A '/' in the stream id could leave the log directory: malformed.
TEST_F(SaLogTest, SlashInValueIsInvalid) {
    ASSERT_EQ(0, mkdir((directory + "/logs").c_str(), 0755));
    setenv("SA_LOG_DIR", (directory + "/logs").c_str(), 1);
    SaLogStreamHandleT stream = 0;
    EXPECT_EQ(SA_AIS_ERR_INVALID_PARAM, create("safLgStr=../escape,safApp=safLogService", &stream));
    EXPECT_FALSE(fileExists(directory + "/escape.log"));
}

// A backslash in the stream id is malformed.
TEST_F(SaLogTest, BackslashInValueIsInvalid) {
    SaLogStreamHandleT stream = 0;
    EXPECT_EQ(SA_AIS_ERR_INVALID_PARAM, create("safLgStr=a\\,b,safApp=safLogService", &stream));
}

// A second '=' in the first RDN is malformed.
TEST_F(SaLogTest, SecondEqualsInValueIsInvalid) {
    SaLogStreamHandleT stream = 0;
    EXPECT_EQ(SA_AIS_ERR_INVALID_PARAM, create("safLgStr=a=b,safApp=safLogService", &stream));
}

// A control byte in the stream id is malformed.
TEST_F(SaLogTest, ControlByteInValueIsInvalid) {
    SaLogStreamHandleT stream = 0;
    EXPECT_EQ(SA_AIS_ERR_INVALID_PARAM, create("safLgStr=a\tb,safApp=safLogService", &stream));
}

// An empty name is malformed.
TEST_F(SaLogTest, EmptyNameIsInvalid) {
    SaLogStreamHandleT stream = 0;
    EXPECT_EQ(SA_AIS_ERR_INVALID_PARAM, open("", &stream));
}

// A name length above SA_MAX_NAME_LENGTH (256) is invalid.
TEST_F(SaLogTest, NameLongerThanMaximumIsInvalid) {
    configure("TnNetworkLog");
    SaNameT name = makeName(streamDn("TnNetworkLog"));
    name.length = 257;
    SaLogStreamHandleT stream = 0;
    EXPECT_EQ(SA_AIS_ERR_INVALID_PARAM,
              saLogStreamOpen_2(handle, &name, nullptr, 0, SA_TIME_ONE_SECOND, &stream));
}

// Only length bytes of the name count; the bytes after them are not read as part of it.
TEST_F(SaLogTest, UnterminatedNameUsesLengthBytes) {
    configure("Abc");
    SaLogStreamHandleT stream = 0;
    // makeName fills the rest of value with 'Z': reading past length would give "AbcZZZ...".
    EXPECT_EQ(SA_AIS_OK, open("safLgStr=Abc", &stream));
}

// A name of the full 256 bytes, with no terminator, names a stream of 247 bytes.
TEST_F(SaLogTest, FullLengthNameWithoutTerminator) {
    const std::string id(247, 'n');
    const std::string dn = "safLgStr=" + id;
    ASSERT_EQ(256u, dn.size());
    SaLogStreamHandleT stream = 0;
    EXPECT_EQ(SA_AIS_OK, create(dn, &stream));
    EXPECT_TRUE(fileExists(pathOf(id)));
}

// A length that counts a terminating NUL names the same stream.
TEST_F(SaLogTest, LengthCountingTerminatorIsAccepted) {
    configure("Abc");
    SaLogStreamHandleT stream = 0;
    EXPECT_EQ(SA_AIS_OK, open(std::string("safLgStr=Abc\0", 13), &stream));
}

// A stream id of 251 bytes still makes a file name of 255 bytes.
TEST_F(SaLogTest, LongestStreamIdIsAccepted) {
    const std::string id(251, 'i');
    SaLogStreamHandleT stream = 0;
    EXPECT_EQ(SA_AIS_OK, create("s=" + id, &stream));
    EXPECT_TRUE(fileExists(pathOf(id)));
}

// A stream id of 252 bytes cannot become a file name.
TEST_F(SaLogTest, TooLongStreamIdIsInvalid) {
    const std::string id(252, 'i');
    SaLogStreamHandleT stream = 0;
    EXPECT_EQ(SA_AIS_ERR_INVALID_PARAM, create("s=" + id, &stream));
}

// ---- saLogWriteLogAsync: record format ----

// A record is one line: time with microseconds, severity, user name, text.
TEST_F(SaLogTest, RecordFormatIsExact) {
    const SaLogStreamHandleT stream = openConfigured("TnNetworkLog");
    ASSERT_EQ(SA_AIS_OK,
              write(stream, Record(SA_LOG_SEV_INFO, "TWAMP",
                                   "TwampTestSession: delayRtMax 5000 are larger than 4s")));
    EXPECT_EQ(
        "2026-11-20T23:12:01.123456Z INFO TWAMP TwampTestSession: delayRtMax 5000 are larger than "
        "4s\n",
        readFile(pathOf("TnNetworkLog")));
}

// Each severity is written by its name.
TEST_F(SaLogTest, SeverityNames) {
    const SaLogStreamHandleT stream = openConfigured("TnNetworkLog");
    for (int severity = SA_LOG_SEV_EMERGENCY; severity <= SA_LOG_SEV_INFO; ++severity) {
        ASSERT_EQ(SA_AIS_OK,
                  write(stream, Record(static_cast<SaLogSeverityT>(severity), "U", "t")));
    }
    const std::vector<std::string> expected = {
        "2026-11-20T23:12:01.123456Z EMERGENCY U t", "2026-11-20T23:12:01.123456Z ALERT U t",
        "2026-11-20T23:12:01.123456Z CRITICAL U t",  "2026-11-20T23:12:01.123456Z ERROR U t",
        "2026-11-20T23:12:01.123456Z WARNING U t",   "2026-11-20T23:12:01.123456Z NOTICE U t",
        "2026-11-20T23:12:01.123456Z INFO U t",
    };
    EXPECT_EQ(expected, readLines(pathOf("TnNetworkLog")));
}

// A severity outside EMERGENCY..INFO is invalid and writes nothing.
TEST_F(SaLogTest, UnknownSeverityIsInvalid) {
    const SaLogStreamHandleT stream = openConfigured("TnNetworkLog");
    EXPECT_EQ(SA_AIS_ERR_INVALID_PARAM,
              write(stream, Record(static_cast<SaLogSeverityT>(7), "TWAMP", "text")));
    EXPECT_EQ("", readFile(pathOf("TnNetworkLog")));
}

// The given time stamp is written in UTC with its microseconds (nanoseconds cut).
TEST_F(SaLogTest, GivenTimeStampIsWritten) {
    const SaLogStreamHandleT stream = openConfigured("TnNetworkLog");
    ASSERT_EQ(SA_AIS_OK, write(stream, Record(SA_LOG_SEV_INFO, "TWAMP", "x", 999999999LL)));
    EXPECT_EQ("1970-01-01T00:00:00.999999Z INFO TWAMP x\n", readFile(pathOf("TnNetworkLog")));
}

// A time stamp just before 1970 is written as such, with a positive microsecond part.
TEST_F(SaLogTest, TimeStampBefore1970) {
    const SaLogStreamHandleT stream = openConfigured("TnNetworkLog");
    ASSERT_EQ(SA_AIS_OK, write(stream, Record(SA_LOG_SEV_INFO, "TWAMP", "x", -1)));
    EXPECT_EQ("1969-12-31T23:59:59.999999Z INFO TWAMP x\n", readFile(pathOf("TnNetworkLog")));
}

// SA_TIME_UNKNOWN is replaced by the time of the write.
TEST_F(SaLogTest, UnknownTimeStampIsStampedNow) {
    const SaLogStreamHandleT stream = openConfigured("TnNetworkLog");
    const std::string before = utcNowText();
    ASSERT_EQ(SA_AIS_OK, write(stream, Record(SA_LOG_SEV_INFO, "TWAMP", "x", SA_TIME_UNKNOWN)));
    const std::string after = utcNowText();
    const auto lines = readLines(pathOf("TnNetworkLog"));
    ASSERT_EQ(1u, lines.size());
    ASSERT_TRUE(std::regex_match(lines[0], std::regex(std::string(kTimePattern) + " INFO TWAMP x")))
        << lines[0];
    const std::string stamp = lines[0].substr(0, before.size());
    EXPECT_LE(before, stamp);
    EXPECT_GE(after, stamp);
}

// The user name is length bytes of an unterminated value.
TEST_F(SaLogTest, UnterminatedUserNameUsesLengthBytes) {
    const SaLogStreamHandleT stream = openConfigured("TnNetworkLog");
    ASSERT_EQ(SA_AIS_OK, write(stream, Record(SA_LOG_SEV_INFO, "TWAMP", "x")));
    EXPECT_EQ("2026-11-20T23:12:01.123456Z INFO TWAMP x\n", readFile(pathOf("TnNetworkLog")));
}

// An empty user name is written as "-".
TEST_F(SaLogTest, EmptyUserNameIsDash) {
    const SaLogStreamHandleT stream = openConfigured("TnNetworkLog");
    ASSERT_EQ(SA_AIS_OK, write(stream, Record(SA_LOG_SEV_INFO, "", "x")));
    EXPECT_EQ("2026-11-20T23:12:01.123456Z INFO - x\n", readFile(pathOf("TnNetworkLog")));
}

// A NULL user name is written as "-".
TEST_F(SaLogTest, NullUserNameIsDash) {
    const SaLogStreamHandleT stream = openConfigured("TnNetworkLog");
    Record record(SA_LOG_SEV_INFO, "unused", "x");
    record.record.logHeader.genericHdr.logSvcUsrName = nullptr;
    ASSERT_EQ(SA_AIS_OK, write(stream, record));
    EXPECT_EQ("2026-11-20T23:12:01.123456Z INFO - x\n", readFile(pathOf("TnNetworkLog")));
}

// Spaces and control bytes of the user name are escaped, so the name stays one field.
TEST_F(SaLogTest, UserNameIsEscaped) {
    const SaLogStreamHandleT stream = openConfigured("TnNetworkLog");
    ASSERT_EQ(SA_AIS_OK, write(stream, Record(SA_LOG_SEV_INFO, "a b\nc", "x")));
    EXPECT_EQ("2026-11-20T23:12:01.123456Z INFO a\\x20b\\nc x\n", readFile(pathOf("TnNetworkLog")));
}

// A user name length above 256 is invalid.
TEST_F(SaLogTest, UserNameLongerThanMaximumIsInvalid) {
    const SaLogStreamHandleT stream = openConfigured("TnNetworkLog");
    Record record(SA_LOG_SEV_INFO, "TWAMP", "x");
    record.userName.length = 257;
    EXPECT_EQ(SA_AIS_ERR_INVALID_PARAM, write(stream, record));
    EXPECT_EQ("", readFile(pathOf("TnNetworkLog")));
}

// Newline, CR, backslash and control bytes of the text are escaped; other bytes stay.
TEST_F(SaLogTest, TextIsEscaped) {
    const SaLogStreamHandleT stream = openConfigured("TnNetworkLog");
    ASSERT_EQ(SA_AIS_OK, write(stream, Record(SA_LOG_SEV_INFO, "TWAMP",
                                              "a\nb\rc\\d\te\x01"
                                              "f\x7fg \xc3\xa9")));
    EXPECT_EQ("2026-11-20T23:12:01.123456Z INFO TWAMP a\\nb\\rc\\\\d\\x09e\\x01f\\x7fg \xc3\xa9\n",
              readFile(pathOf("TnNetworkLog")));
}

// A NUL byte inside the text is written escaped and the text goes on after it.
TEST_F(SaLogTest, NulByteInTextIsEscaped) {
    const SaLogStreamHandleT stream = openConfigured("TnNetworkLog");
    ASSERT_EQ(SA_AIS_OK, write(stream, Record(SA_LOG_SEV_INFO, "TWAMP", std::string("a\0b", 3))));
    EXPECT_EQ("2026-11-20T23:12:01.123456Z INFO TWAMP a\\x00b\n", readFile(pathOf("TnNetworkLog")));
}

// Only logBufSize bytes of an unterminated buffer are written.
TEST_F(SaLogTest, TextIsLogBufSizeBytes) {
    const SaLogStreamHandleT stream = openConfigured("TnNetworkLog");
    Record record(SA_LOG_SEV_INFO, "TWAMP", "hello");
    record.buffer.logBufSize = 3;
    ASSERT_EQ(SA_AIS_OK, write(stream, record));
    EXPECT_EQ("2026-11-20T23:12:01.123456Z INFO TWAMP hel\n", readFile(pathOf("TnNetworkLog")));
}

// An empty text gives a line that ends after the user name and its separator.
TEST_F(SaLogTest, EmptyText) {
    const SaLogStreamHandleT stream = openConfigured("TnNetworkLog");
    ASSERT_EQ(SA_AIS_OK, write(stream, Record(SA_LOG_SEV_INFO, "TWAMP", "")));
    EXPECT_EQ("2026-11-20T23:12:01.123456Z INFO TWAMP \n", readFile(pathOf("TnNetworkLog")));
}

// A record without a buffer has an empty text.
TEST_F(SaLogTest, NullBufferIsEmptyText) {
    const SaLogStreamHandleT stream = openConfigured("TnNetworkLog");
    Record record(SA_LOG_SEV_INFO, "TWAMP", "unused");
    record.record.logBuffer = nullptr;
    ASSERT_EQ(SA_AIS_OK, write(stream, record));
    EXPECT_EQ("2026-11-20T23:12:01.123456Z INFO TWAMP \n", readFile(pathOf("TnNetworkLog")));
}

// A text of 100000 bytes is written whole, on one line.
TEST_F(SaLogTest, LongTextIsWrittenWhole) {
    const SaLogStreamHandleT stream = openConfigured("TnNetworkLog");
    const std::string text(100000, 'L');
    ASSERT_EQ(SA_AIS_OK, write(stream, Record(SA_LOG_SEV_INFO, "TWAMP", text)));
    EXPECT_EQ("2026-11-20T23:12:01.123456Z INFO TWAMP " + text + "\n",
              readFile(pathOf("TnNetworkLog")));
}

// A NULL logBuf with a non-zero size is invalid.
TEST_F(SaLogTest, NullLogBufWithSizeIsInvalid) {
    const SaLogStreamHandleT stream = openConfigured("TnNetworkLog");
    Record record(SA_LOG_SEV_INFO, "TWAMP", "text");
    record.buffer.logBuf = nullptr;
    EXPECT_EQ(SA_AIS_ERR_INVALID_PARAM, write(stream, record));
    EXPECT_EQ("", readFile(pathOf("TnNetworkLog")));
}

// A NULL record is invalid.
TEST_F(SaLogTest, NullRecordIsInvalid) {
    const SaLogStreamHandleT stream = openConfigured("TnNetworkLog");
    EXPECT_EQ(SA_AIS_ERR_INVALID_PARAM, saLogWriteLogAsync(stream, 0, 0, nullptr));
}

// The notification header is not supported: invalid parameter.
TEST_F(SaLogTest, NotificationHeaderIsInvalid) {
    const SaLogStreamHandleT stream = openConfigured("TnNetworkLog");
    Record record(SA_LOG_SEV_INFO, "TWAMP", "text");
    record.record.logHdrType = SA_LOG_NTF_HEADER;
    EXPECT_EQ(SA_AIS_ERR_INVALID_PARAM, write(stream, record));
    EXPECT_EQ("", readFile(pathOf("TnNetworkLog")));
}

// ---- saLogWriteLogAsync: streams and files ----

// Records are appended in order after what the file held.
TEST_F(SaLogTest, RecordsAreAppendedInOrder) {
    configure("TnNetworkLog", "earlier record\n");
    SaLogStreamHandleT stream = 0;
    ASSERT_EQ(SA_AIS_OK, open(streamDn("TnNetworkLog"), &stream));
    ASSERT_EQ(SA_AIS_OK, write(stream, Record(SA_LOG_SEV_INFO, "TWAMP", "one")));
    ASSERT_EQ(SA_AIS_OK, write(stream, Record(SA_LOG_SEV_NOTICE, "TWAMP", "two")));
    ASSERT_EQ(SA_AIS_OK, write(stream, Record(SA_LOG_SEV_ERROR, "TWAMP", "three")));
    const std::vector<std::string> expected = {
        "earlier record",
        "2026-11-20T23:12:01.123456Z INFO TWAMP one",
        "2026-11-20T23:12:01.123456Z NOTICE TWAMP two",
        "2026-11-20T23:12:01.123456Z ERROR TWAMP three",
    };
    EXPECT_EQ(expected, readLines(pathOf("TnNetworkLog")));
}

// Two streams write to two files.
TEST_F(SaLogTest, TwoStreamsWriteTwoFiles) {
    const SaLogStreamHandleT application = openConfigured("TnApplicationLog");
    const SaLogStreamHandleT network = openConfigured("TnNetworkLog");
    ASSERT_NE(application, network);
    ASSERT_EQ(SA_AIS_OK, write(application, Record(SA_LOG_SEV_INFO, "TWAMP", "to application")));
    ASSERT_EQ(SA_AIS_OK, write(network, Record(SA_LOG_SEV_INFO, "TWAMP", "to network")));
    EXPECT_EQ("2026-11-20T23:12:01.123456Z INFO TWAMP to application\n",
              readFile(pathOf("TnApplicationLog")));
    EXPECT_EQ("2026-11-20T23:12:01.123456Z INFO TWAMP to network\n",
              readFile(pathOf("TnNetworkLog")));
}

// A stream opened twice gives two handles on the same file.
TEST_F(SaLogTest, StreamOpenedTwiceSharesFile) {
    configure("TnNetworkLog");
    SaLogStreamHandleT first = 0;
    SaLogStreamHandleT second = 0;
    ASSERT_EQ(SA_AIS_OK, open(streamDn("TnNetworkLog"), &first));
    ASSERT_EQ(SA_AIS_OK, open(streamDn("TnNetworkLog"), &second));
    ASSERT_NE(first, second);
    ASSERT_EQ(SA_AIS_OK, write(first, Record(SA_LOG_SEV_INFO, "TWAMP", "one")));
    ASSERT_EQ(SA_AIS_OK, write(second, Record(SA_LOG_SEV_INFO, "TWAMP", "two")));
    const std::vector<std::string> expected = {
        "2026-11-20T23:12:01.123456Z INFO TWAMP one",
        "2026-11-20T23:12:01.123456Z INFO TWAMP two",
    };
    EXPECT_EQ(expected, readLines(pathOf("TnNetworkLog")));
}

// A stream whose file was removed while it was open creates the file again with the next record.
TEST_F(SaLogTest, RemovedFileIsCreatedAgain) {
    const SaLogStreamHandleT stream = openConfigured("TnNetworkLog");
    ASSERT_EQ(SA_AIS_OK, write(stream, Record(SA_LOG_SEV_INFO, "TWAMP", "before")));
    ASSERT_EQ(0, unlink(pathOf("TnNetworkLog").c_str()));
    ASSERT_EQ(SA_AIS_OK, write(stream, Record(SA_LOG_SEV_INFO, "TWAMP", "after")));
    EXPECT_EQ("2026-11-20T23:12:01.123456Z INFO TWAMP after\n", readFile(pathOf("TnNetworkLog")));
}

// A file created again after its removal gets mode 0640 less the umask.
TEST_F(SaLogTest, RemovedFileIsCreatedAgainWithStreamMode) {
    const SaLogStreamHandleT stream = openConfigured("TnNetworkLog");
    ASSERT_EQ(0, unlink(pathOf("TnNetworkLog").c_str()));
    const mode_t previous = umask(0027);
    const SaAisErrorT result = write(stream, Record(SA_LOG_SEV_INFO, "TWAMP", "after"));
    umask(previous);
    ASSERT_EQ(SA_AIS_OK, result);
    struct stat status;
    ASSERT_EQ(0, stat(pathOf("TnNetworkLog").c_str(), &status));
    EXPECT_EQ(0640u, status.st_mode & 0777u);
}

// A stream whose file was renamed away and replaced writes to the new file, not the renamed one.
TEST_F(SaLogTest, ReplacedFileIsFollowed) {
    const SaLogStreamHandleT stream = openConfigured("TnNetworkLog");
    ASSERT_EQ(SA_AIS_OK, write(stream, Record(SA_LOG_SEV_INFO, "TWAMP", "before")));
    ASSERT_EQ(0, rename(pathOf("TnNetworkLog").c_str(), (directory + "/rotated").c_str()));
    configure("TnNetworkLog", "new file\n");
    ASSERT_EQ(SA_AIS_OK, write(stream, Record(SA_LOG_SEV_INFO, "TWAMP", "after")));
    EXPECT_EQ("2026-11-20T23:12:01.123456Z INFO TWAMP before\n", readFile(directory + "/rotated"));
    EXPECT_EQ("new file\n2026-11-20T23:12:01.123456Z INFO TWAMP after\n",
              readFile(pathOf("TnNetworkLog")));
}

// A record whose file and directory were removed fails with not-exist instead of being lost.
TEST_F(SaLogTest, RemovedDirectoryFailsTheRecord) {
    const SaLogStreamHandleT stream = openConfigured("TnNetworkLog");
    ASSERT_EQ(0, unlink(pathOf("TnNetworkLog").c_str()));
    ASSERT_EQ(0, rmdir(directory.c_str()));
    EXPECT_EQ(SA_AIS_ERR_NOT_EXIST, write(stream, Record(SA_LOG_SEV_INFO, "TWAMP", "lost")));
}

// A full device reports no space.
TEST_F(SaLogTest, FullDeviceIsNoSpace) {
    ASSERT_EQ(0, symlink("/dev/full", pathOf("Full").c_str()));
    SaLogStreamHandleT stream = 0;
    ASSERT_EQ(SA_AIS_OK, open(streamDn("Full"), &stream));
    EXPECT_EQ(SA_AIS_ERR_NO_SPACE, write(stream, Record(SA_LOG_SEV_INFO, "TWAMP", "x")));
}

// A stream handle that was never given out is a bad handle.
TEST_F(SaLogTest, WriteWithUnknownStreamIsBadHandle) {
    EXPECT_EQ(SA_AIS_ERR_BAD_HANDLE, write(0, Record(SA_LOG_SEV_INFO, "TWAMP", "x")));
}

// The service handle is not a stream handle.
TEST_F(SaLogTest, WriteWithServiceHandleIsBadHandle) {
    openConfigured("TnNetworkLog");
    EXPECT_EQ(SA_AIS_ERR_BAD_HANDLE, write(handle, Record(SA_LOG_SEV_INFO, "TWAMP", "x")));
}

// An acknowledgement asked for without a write callback is refused with ERR_INIT.
TEST_F(SaLogTest, AcknowledgementWithoutCallbackIsInitError) {
    const SaLogStreamHandleT stream = openConfigured("TnNetworkLog");
    const Record record(SA_LOG_SEV_INFO, "TWAMP", "x");
    EXPECT_EQ(SA_AIS_ERR_INIT,
              saLogWriteLogAsync(stream, 7, SA_LOG_RECORD_WRITE_ACK, &record.record));
    EXPECT_EQ("", readFile(pathOf("TnNetworkLog")));
}

std::atomic<int> g_acknowledgements{0};
void countAcknowledgement(SaInvocationT, SaAisErrorT) {
    ++g_acknowledgements;
}

// With a write callback an acknowledged write succeeds; the callback is never called.
TEST_F(SaLogTest, AcknowledgementWithCallbackIsWritten) {
    SaLogCallbacksT callbacks = {nullptr, nullptr, countAcknowledgement};
    SaVersionT version = {'A', 2, 1};
    SaLogHandleT withCallback = 0;
    ASSERT_EQ(SA_AIS_OK, saLogInitialize(&withCallback, &callbacks, &version));
    configure("TnNetworkLog");
    const SaNameT name = makeName(streamDn("TnNetworkLog"));
    SaLogStreamHandleT stream = 0;
    ASSERT_EQ(SA_AIS_OK,
              saLogStreamOpen_2(withCallback, &name, nullptr, 0, SA_TIME_ONE_SECOND, &stream));
    g_acknowledgements = 0;
    const Record record(SA_LOG_SEV_INFO, "TWAMP", "x");
    EXPECT_EQ(SA_AIS_OK, saLogWriteLogAsync(stream, 7, SA_LOG_RECORD_WRITE_ACK, &record.record));
    EXPECT_EQ("2026-11-20T23:12:01.123456Z INFO TWAMP x\n", readFile(pathOf("TnNetworkLog")));
    EXPECT_EQ(0, g_acknowledgements.load());
    EXPECT_EQ(SA_AIS_OK, saLogFinalize(withCallback));
}

// An unknown acknowledgement flag is refused as a bad flag.
TEST_F(SaLogTest, UnknownAcknowledgementFlagIsBadFlags) {
    const SaLogStreamHandleT stream = openConfigured("TnNetworkLog");
    const Record record(SA_LOG_SEV_INFO, "TWAMP", "x");
    EXPECT_EQ(SA_AIS_ERR_BAD_FLAGS, saLogWriteLogAsync(stream, 0, 0x2, &record.record));
}

// ---- saLogStreamClose and saLogFinalize ----

// A closed stream handle is a bad handle for writing.
TEST_F(SaLogTest, WriteAfterCloseIsBadHandle) {
    const SaLogStreamHandleT stream = openConfigured("TnNetworkLog");
    ASSERT_EQ(SA_AIS_OK, saLogStreamClose(stream));
    EXPECT_EQ(SA_AIS_ERR_BAD_HANDLE, write(stream, Record(SA_LOG_SEV_INFO, "TWAMP", "x")));
    EXPECT_EQ("", readFile(pathOf("TnNetworkLog")));
}

// A stream closes only once.
TEST_F(SaLogTest, SecondCloseIsBadHandle) {
    const SaLogStreamHandleT stream = openConfigured("TnNetworkLog");
    ASSERT_EQ(SA_AIS_OK, saLogStreamClose(stream));
    EXPECT_EQ(SA_AIS_ERR_BAD_HANDLE, saLogStreamClose(stream));
}

// Closing a handle that was never given out is a bad handle.
TEST_F(SaLogTest, CloseUnknownStreamIsBadHandle) {
    EXPECT_EQ(SA_AIS_ERR_BAD_HANDLE, saLogStreamClose(123456789));
}

// Closing one stream leaves the other writable.
TEST_F(SaLogTest, CloseLeavesOtherStreamOpen) {
    const SaLogStreamHandleT application = openConfigured("TnApplicationLog");
    const SaLogStreamHandleT network = openConfigured("TnNetworkLog");
    ASSERT_EQ(SA_AIS_OK, saLogStreamClose(application));
    EXPECT_EQ(SA_AIS_OK, write(network, Record(SA_LOG_SEV_INFO, "TWAMP", "x")));
    EXPECT_EQ("2026-11-20T23:12:01.123456Z INFO TWAMP x\n", readFile(pathOf("TnNetworkLog")));
}

// Finalising closes the handle's streams: writing to them is a bad handle.
TEST_F(SaLogTest, FinalizeClosesStreams) {
    const SaLogStreamHandleT application = openConfigured("TnApplicationLog");
    const SaLogStreamHandleT network = openConfigured("TnNetworkLog");
    ASSERT_EQ(SA_AIS_OK, saLogFinalize(handle));
    EXPECT_EQ(SA_AIS_ERR_BAD_HANDLE, write(application, Record(SA_LOG_SEV_INFO, "TWAMP", "x")));
    EXPECT_EQ(SA_AIS_ERR_BAD_HANDLE, write(network, Record(SA_LOG_SEV_INFO, "TWAMP", "x")));
}

// After finalising, closing one of the handle's streams is a bad handle.
TEST_F(SaLogTest, CloseAfterFinalizeIsBadHandle) {
    const SaLogStreamHandleT stream = openConfigured("TnNetworkLog");
    ASSERT_EQ(SA_AIS_OK, saLogFinalize(handle));
    EXPECT_EQ(SA_AIS_ERR_BAD_HANDLE, saLogStreamClose(stream));
}

// A handle finalises only once.
TEST_F(SaLogTest, SecondFinalizeIsBadHandle) {
    ASSERT_EQ(SA_AIS_OK, saLogFinalize(handle));
    EXPECT_EQ(SA_AIS_ERR_BAD_HANDLE, saLogFinalize(handle));
}

// Finalising a handle that was never given out is a bad handle.
TEST_F(SaLogTest, FinalizeUnknownHandleIsBadHandle) {
    EXPECT_EQ(SA_AIS_ERR_BAD_HANDLE, saLogFinalize(handle + 1000));
}

// Finalising one handle leaves the streams of another handle open.
TEST_F(SaLogTest, FinalizeLeavesOtherHandlesStreams) {
    SaLogHandleT other = 0;
    SaVersionT version = {'A', 2, 1};
    ASSERT_EQ(SA_AIS_OK, saLogInitialize(&other, nullptr, &version));
    const SaLogStreamHandleT mine = openConfigured("TnNetworkLog");
    ASSERT_EQ(SA_AIS_OK, saLogFinalize(other));
    EXPECT_EQ(SA_AIS_OK, write(mine, Record(SA_LOG_SEV_INFO, "TWAMP", "x")));
    EXPECT_EQ("2026-11-20T23:12:01.123456Z INFO TWAMP x\n", readFile(pathOf("TnNetworkLog")));
}

// ---- Capacity and threads ----

// Thousands of handles and hundreds of open streams are served at once.
TEST_F(SaLogTest, ManyHandlesAndStreams) {
    std::vector<SaLogHandleT> handles(3000);
    for (SaLogHandleT& each : handles) {
        SaVersionT version = {'A', 2, 1};
        ASSERT_EQ(SA_AIS_OK, saLogInitialize(&each, nullptr, &version));
    }
    configure("TnNetworkLog");
    std::vector<SaLogStreamHandleT> streams(500);
    for (SaLogStreamHandleT& each : streams) {
        ASSERT_EQ(SA_AIS_OK, open(streamDn("TnNetworkLog"), &each));
    }
    for (size_t i = 0; i < streams.size(); ++i) {
        ASSERT_EQ(SA_AIS_OK,
                  write(streams[i], Record(SA_LOG_SEV_INFO, "TWAMP", std::to_string(i))));
    }
    const auto lines = readLines(pathOf("TnNetworkLog"));
    ASSERT_EQ(500u, lines.size());
    EXPECT_EQ("2026-11-20T23:12:01.123456Z INFO TWAMP 0", lines.front());
    EXPECT_EQ("2026-11-20T23:12:01.123456Z INFO TWAMP 499", lines.back());
    for (SaLogHandleT each : handles) {
        ASSERT_EQ(SA_AIS_OK, saLogFinalize(each));
    }
}

// Writers in four threads each keep their records whole and in their own order.
TEST_F(SaLogTest, ConcurrentWritersKeepRecordsWhole) {
    const SaLogStreamHandleT stream = openConfigured("TnNetworkLog");
    constexpr int kThreads = 4;
    constexpr int kRecords = 250;
    std::vector<std::thread> threads;
    std::atomic<int> failures{0};
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < kRecords; ++i) {
                const std::string text = "thread " + std::to_string(t) + " record " +
                                         std::to_string(i) + std::string(200, 'p');
                if (write(stream, Record(SA_LOG_SEV_INFO, "TWAMP", text)) != SA_AIS_OK) {
                    ++failures;
                }
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    ASSERT_EQ(0, failures.load());
    const auto lines = readLines(pathOf("TnNetworkLog"));
    ASSERT_EQ(static_cast<size_t>(kThreads * kRecords), lines.size());
    std::vector<int> next(kThreads, 0);
    const std::regex line(
        "2026-11-20T23:12:01\\.123456Z INFO TWAMP thread ([0-9]) record ([0-9]+)p{200}");
    for (const auto& text : lines) {
        std::smatch match;
        ASSERT_TRUE(std::regex_match(text, match, line)) << text;
        const int thread = std::stoi(match[1]);
        EXPECT_EQ(next[thread], std::stoi(match[2]));
        next[thread] = std::stoi(match[2]) + 1;
    }
}

}  // namespace
