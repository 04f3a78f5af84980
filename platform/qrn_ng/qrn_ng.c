/* Restart-request stand-in: records each request as one line in a log file. */
#define _GNU_SOURCE
#include "qrn_ng.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

enum { RECORD_CAPACITY = 8192 };

typedef struct {
    char text[RECORD_CAPACITY];
    size_t length;
} record_t;

static void record_append(record_t* record, const char* format, ...)
    __attribute__((format(printf, 2, 3)));

static void record_append(record_t* record, const char* format, ...) {
    if (record->length >= sizeof(record->text) - 1) {
        return;
    }
    va_list args;
    va_start(args, format);
    int written = vsnprintf(record->text + record->length, sizeof(record->text) - record->length,
                            format, args);
    va_end(args);
    if (written > 0) {
        size_t room = sizeof(record->text) - record->length - 1;
        record->length += (size_t)written < room ? (size_t)written : room;
    }
}

static void record_append_escaped(record_t* record, const char* text) {
    for (const unsigned char* c = (const unsigned char*)text; *c != '\0'; ++c) {
        if (*c == '\\' || *c == '"') {
            record_append(record, "\\%c", *c);
        } else if (*c == '\n') {
            record_append(record, "\\n");
        } else if (*c == '\t') {
            record_append(record, "\\t");
        } else if (*c < 0x20 || *c == 0x7f) {
            record_append(record, "\\x%02x", *c);
        } else {
            record_append(record, "%c", *c);
        }
    }
}

static void record_append_time(record_t* record) {
    struct timespec now;
    struct tm utc;
    clock_gettime(CLOCK_REALTIME, &now);
    gmtime_r(&now.tv_sec, &utc);
    char stamp[32];
    strftime(stamp, sizeof(stamp), "%Y-%m-%dT%H:%M:%S", &utc);
    record_append(record, "%s.%06ldZ", stamp, now.tv_nsec / 1000);
}

static const char* restart_log_path(void) {
    const char* path = getenv("QRN_NG_RESTART_LOG");
    return (path != NULL && path[0] != '\0') ? path : QRN_NG_DEFAULT_RESTART_LOG;
}

/* Creates the log file's directory when it is missing (one level, as the default needs). */
static void ensure_parent_directory(const char* path) {
    char directory[PATH_MAX];
    snprintf(directory, sizeof(directory), "%s", path);
    char* slash = strrchr(directory, '/');
    if (slash == NULL || slash == directory) {
        return;
    }
    *slash = '\0';
    if (mkdir(directory, 0755) != 0 && errno != EEXIST) {
        return; /* the open below reports the failure */
    }
}

static int write_record(const char* path, const record_t* record) {
    ensure_parent_directory(path);
    int fd = open(path, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    if (fd < 0) {
        return -1;
    }
    /* One write with O_APPEND keeps concurrent requests on separate lines. */
    ssize_t written = write(fd, record->text, record->length);
    int saved_errno = errno;
    close(fd);
    if (written != (ssize_t)record->length) {
        errno = written < 0 ? saved_errno : EIO;
        return -1;
    }
    return 0;
}

static void exit_when_asked(void) {
    const char* status_text = getenv("QRN_NG_EXIT_STATUS");
    if (status_text == NULL || status_text[0] == '\0') {
        return;
    }
    char* end = NULL;
    long status = strtol(status_text, &end, 10);
    if (*end == '\0' && status >= 0 && status <= 255) {
        _exit((int)status);
    }
}

int qrn_ng_restart_request_line_and_file(int line, const char* file, int level, const char* message,
                                         int data1, int data2) {
    record_t record = {.length = 0};
    record_append_time(&record);
    record_append(&record, " pid=%ld level=%d line=%d file=%s data=%d,%d message=\"",
                  (long)getpid(), level, line, file != NULL ? file : "(null)", data1, data2);
    record_append_escaped(&record, message != NULL ? message : "");
    /* Room for the closing quote and the newline is always kept. */
    if (record.length > sizeof(record.text) - 3) {
        record.length = sizeof(record.text) - 3;
    }
    record.text[record.length++] = '"';
    record.text[record.length++] = '\n';
    record.text[record.length] = '\0';

    int result = write_record(restart_log_path(), &record);
    exit_when_asked();
    return result;
}
