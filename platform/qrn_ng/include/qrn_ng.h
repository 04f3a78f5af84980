/*
 * Platform restart request.
 *
 * Stand-in for the node platform's library libqrn_ng.so.0: the request is
 * written as one line to a log file so that tests and operators can see it.
 *
 * Environment:
 *   QRN_NG_RESTART_LOG   file that receives the records
 *                        (default /var/log/qrn_ng/restart.log; its directory is
 *                        created when missing)
 *   QRN_NG_EXIT_STATUS   when set to a number 0..255, the process ends with
 *                        _exit(status) right after the record is written, so
 *                        that a supervisor can restart it; otherwise the call
 *                        returns to its caller
 *
 * Record format (one line, fields separated by one blank):
 *   <UTC time with microseconds> pid=<pid> level=<level> line=<line>
 *   file=<file> data=<data1>,<data2> message="<message>"
 * Inside the quotes a backslash, a double quote and every control character
 * are escaped (\\, \", \n, \t, \xHH), so one request is always one line.
 */
#ifndef QRN_NG_H
#define QRN_NG_H

#ifdef __cplusplus
extern "C" {
#endif

#define QRN_NG_DEFAULT_RESTART_LOG "/var/log/qrn_ng/restart.log"

/**
 * Asks the platform to restart the calling process.
 * @param line    source line of the request
 * @param file    full source path of the request
 * @param level   restart level; 1 restarts the calling process
 * @param message reason of the request (may be NULL)
 * @param data1   platform-specific, 0 when unused
 * @param data2   platform-specific, 0 when unused
 * @return 0 when the request was recorded, -1 with errno set otherwise
 */
int qrn_ng_restart_request_line_and_file(int line, const char* file, int level, const char* message,
                                         int data1, int data2);

#ifdef __cplusplus
}
#endif

#endif /* QRN_NG_H */
