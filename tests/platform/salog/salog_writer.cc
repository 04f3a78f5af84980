// salog_writer: keeps one operator-log stream open and writes each line read
// from standard input to it as one record, answering "ok" or "error N" on
// standard output after each. For tests that rotate a stream file under a
// writer that holds it open, as the daemon does.
//
//   SA_LOG_DIR=DIR salog_writer STREAM_ID
//
// Exits 1 when the stream cannot be opened, 2 on a bad command line.
#include <algorithm>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <string>
#include <vector>

#include "saLog.h"

namespace {

SaNameT nameOf(const std::string& text) {
    SaNameT name = {};
    name.length = static_cast<SaUint16T>(std::min(text.size(), sizeof(name.value)));
    std::memcpy(name.value, text.data(), name.length);
    return name;
}

SaAisErrorT writeRecord(SaLogStreamHandleT stream, const std::string& line) {
    SaNameT user = nameOf("salog_writer");
    std::vector<SaUint8T> body(line.begin(), line.end());
    SaLogBufferT buffer = {};
    buffer.logBufSize = body.size();
    buffer.logBuf = body.empty() ? nullptr : body.data();
    SaLogRecordT record = {};
    record.logTimeStamp = SA_TIME_UNKNOWN;
    record.logHdrType = SA_LOG_GENERIC_HEADER;
    record.logHeader.genericHdr.logSvcUsrName = &user;
    record.logHeader.genericHdr.logSeverity = SA_LOG_SEV_INFO;
    record.logBuffer = &buffer;
    return saLogWriteLogAsync(stream, 0, 0, &record);
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: SA_LOG_DIR=DIR salog_writer STREAM_ID\n");
        return 2;
    }
    SaLogHandleT handle = 0;
    SaVersionT version = {'A', 2, 1};
    SaAisErrorT result = saLogInitialize(&handle, nullptr, &version);
    if (result != SA_AIS_OK) {
        std::fprintf(stderr, "saLogInitialize: error %d\n", static_cast<int>(result));
        return 1;
    }
    const SaNameT name = nameOf(std::string("safLgStr=") + argv[1] + ",safApp=safLogService");
    SaLogStreamHandleT stream = 0;
    result = saLogStreamOpen_2(handle, &name, nullptr, 0, SA_TIME_ONE_SECOND, &stream);
    if (result != SA_AIS_OK) {
        std::fprintf(stderr, "saLogStreamOpen_2 %s: error %d\n", argv[1], static_cast<int>(result));
        saLogFinalize(handle);
        return 1;
    }
    std::string line;
    while (std::getline(std::cin, line)) {
        result = writeRecord(stream, line);
        if (result == SA_AIS_OK) {
            std::cout << "ok" << std::endl;
        } else {
            std::cout << "error " << static_cast<int>(result) << std::endl;
        }
    }
    saLogFinalize(handle);
    return 0;
}
