blocks/twampBl/twampTestSessionSwU/files/CMakeFiles/twamp_core.dir/src/SocketHelper.cc.o: \
 /work/wt/integ2/blocks/twampBl/twampTestSessionSwU/files/src/SocketHelper.cc \
 /usr/include/stdc-predef.h \
 /work/wt/integ2/blocks/twampBl/twampTestSessionSwU/files/src/SocketHelper.h \
 /usr/include/x86_64-linux-gnu/sys/socket.h /usr/include/features.h \
 /usr/include/features-time64.h \
 /usr/include/x86_64-linux-gnu/bits/wordsize.h \
 /usr/include/x86_64-linux-gnu/bits/timesize.h \
 /usr/include/x86_64-linux-gnu/sys/cdefs.h \
 /usr/include/x86_64-linux-gnu/bits/long-double.h \
 /usr/include/x86_64-linux-gnu/gnu/stubs.h \
 /usr/include/x86_64-linux-gnu/gnu/stubs-64.h \
 /usr/include/x86_64-linux-gnu/bits/types/struct_iovec.h \
 /usr/lib/gcc/x86_64-linux-gnu/12/include/stddef.h \
 /usr/include/x86_64-linux-gnu/bits/socket.h \
 /usr/include/x86_64-linux-gnu/sys/types.h \
 /usr/include/x86_64-linux-gnu/bits/types.h \
 /usr/include/x86_64-linux-gnu/bits/typesizes.h \
 /usr/include/x86_64-linux-gnu/bits/time64.h \
 /usr/include/x86_64-linux-gnu/bits/types/clock_t.h \
 /usr/include/x86_64-linux-gnu/bits/types/clockid_t.h \
 /usr/include/x86_64-linux-gnu/bits/types/time_t.h \
 /usr/include/x86_64-linux-gnu/bits/types/timer_t.h \
 /usr/include/x86_64-linux-gnu/bits/stdint-intn.h /usr/include/endian.h \
 /usr/include/x86_64-linux-gnu/bits/endian.h \
 /usr/include/x86_64-linux-gnu/bits/endianness.h \
 /usr/include/x86_64-linux-gnu/bits/byteswap.h \
 /usr/include/x86_64-linux-gnu/bits/uintn-identity.h \
 /usr/include/x86_64-linux-gnu/sys/select.h \
 /usr/include/x86_64-linux-gnu/bits/select.h \
 /usr/include/x86_64-linux-gnu/bits/types/sigset_t.h \
 /usr/include/x86_64-linux-gnu/bits/types/__sigset_t.h \
 /usr/include/x86_64-linux-gnu/bits/types/struct_timeval.h \
 /usr/include/x86_64-linux-gnu/bits/types/struct_timespec.h \
 /usr/include/x86_64-linux-gnu/bits/select2.h \
 /usr/include/x86_64-linux-gnu/bits/pthreadtypes.h \
 /usr/include/x86_64-linux-gnu/bits/thread-shared-types.h \
 /usr/include/x86_64-linux-gnu/bits/pthreadtypes-arch.h \
 /usr/include/x86_64-linux-gnu/bits/atomic_wide_counter.h \
 /usr/include/x86_64-linux-gnu/bits/struct_mutex.h \
 /usr/include/x86_64-linux-gnu/bits/struct_rwlock.h \
 /usr/include/x86_64-linux-gnu/bits/socket_type.h \
 /usr/include/x86_64-linux-gnu/bits/sockaddr.h \
 /usr/include/x86_64-linux-gnu/asm/socket.h \
 /usr/include/asm-generic/socket.h /usr/include/linux/posix_types.h \
 /usr/include/linux/stddef.h \
 /usr/include/x86_64-linux-gnu/asm/posix_types.h \
 /usr/include/x86_64-linux-gnu/asm/posix_types_64.h \
 /usr/include/asm-generic/posix_types.h \
 /usr/include/x86_64-linux-gnu/asm/bitsperlong.h \
 /usr/include/asm-generic/bitsperlong.h \
 /usr/include/x86_64-linux-gnu/asm/sockios.h \
 /usr/include/asm-generic/sockios.h \
 /usr/include/x86_64-linux-gnu/bits/types/struct_osockaddr.h \
 /usr/include/x86_64-linux-gnu/bits/socket2.h /usr/include/c++/12/cstddef \
 /usr/include/x86_64-linux-gnu/c++/12/bits/c++config.h \
 /usr/include/x86_64-linux-gnu/c++/12/bits/os_defines.h \
 /usr/include/x86_64-linux-gnu/c++/12/bits/cpu_defines.h \
 /usr/include/c++/12/pstl/pstl_config.h /usr/include/c++/12/cstdint \
 /usr/lib/gcc/x86_64-linux-gnu/12/include/stdint.h /usr/include/stdint.h \
 /usr/include/x86_64-linux-gnu/bits/libc-header-start.h \
 /usr/include/x86_64-linux-gnu/bits/wchar.h \
 /usr/include/x86_64-linux-gnu/bits/stdint-uintn.h \
 /work/wt/integ2/blocks/twampBl/twampTestSessionSwU/files/src/ReceiverKey.h \
 /usr/include/netinet/in.h /usr/include/x86_64-linux-gnu/bits/in.h \
 /usr/include/c++/12/algorithm /usr/include/c++/12/bits/stl_algobase.h \
 /usr/include/c++/12/bits/functexcept.h \
 /usr/include/c++/12/bits/exception_defines.h \
 /usr/include/c++/12/bits/cpp_type_traits.h \
 /usr/include/c++/12/ext/type_traits.h \
 /usr/include/c++/12/ext/numeric_traits.h \
 /usr/include/c++/12/bits/stl_pair.h /usr/include/c++/12/type_traits \
 /usr/include/c++/12/bits/move.h /usr/include/c++/12/bits/utility.h \
 /usr/include/c++/12/bits/stl_iterator_base_types.h \
 /usr/include/c++/12/bits/stl_iterator_base_funcs.h \
 /usr/include/c++/12/bits/concept_check.h \
 /usr/include/c++/12/debug/assertions.h \
 /usr/include/c++/12/bits/stl_iterator.h \
 /usr/include/c++/12/bits/ptr_traits.h /usr/include/c++/12/debug/debug.h \
 /usr/include/c++/12/bits/predefined_ops.h \
 /usr/include/c++/12/bits/stl_algo.h \
 /usr/include/c++/12/bits/algorithmfwd.h \
 /usr/include/c++/12/initializer_list /usr/include/c++/12/bits/stl_heap.h \
 /usr/include/c++/12/bits/stl_tempbuf.h \
 /usr/include/c++/12/bits/stl_construct.h /usr/include/c++/12/new \
 /usr/include/c++/12/bits/exception.h \
 /usr/include/c++/12/bits/uniform_int_dist.h /usr/include/c++/12/cstdlib \
 /usr/include/stdlib.h /usr/include/x86_64-linux-gnu/bits/waitflags.h \
 /usr/include/x86_64-linux-gnu/bits/waitstatus.h \
 /usr/include/x86_64-linux-gnu/bits/floatn.h \
 /usr/include/x86_64-linux-gnu/bits/floatn-common.h \
 /usr/include/x86_64-linux-gnu/bits/types/locale_t.h \
 /usr/include/x86_64-linux-gnu/bits/types/__locale_t.h \
 /usr/include/alloca.h \
 /usr/include/x86_64-linux-gnu/bits/stdlib-bsearch.h \
 /usr/include/x86_64-linux-gnu/bits/stdlib-float.h \
 /usr/include/x86_64-linux-gnu/bits/stdlib.h \
 /usr/include/c++/12/bits/std_abs.h \
 /usr/include/c++/12/pstl/glue_algorithm_defs.h \
 /usr/include/c++/12/pstl/execution_defs.h /usr/include/c++/12/cerrno \
 /usr/include/errno.h /usr/include/x86_64-linux-gnu/bits/errno.h \
 /usr/include/linux/errno.h /usr/include/x86_64-linux-gnu/asm/errno.h \
 /usr/include/asm-generic/errno.h /usr/include/asm-generic/errno-base.h \
 /usr/include/x86_64-linux-gnu/bits/types/error_t.h \
 /usr/include/c++/12/cstring /usr/include/string.h /usr/include/strings.h \
 /usr/include/x86_64-linux-gnu/bits/strings_fortified.h \
 /usr/include/x86_64-linux-gnu/bits/string_fortified.h \
 /usr/include/c++/12/ctime /usr/include/time.h \
 /usr/include/x86_64-linux-gnu/bits/time.h \
 /usr/include/x86_64-linux-gnu/bits/timex.h \
 /usr/include/x86_64-linux-gnu/bits/types/struct_tm.h \
 /usr/include/x86_64-linux-gnu/bits/types/struct_itimerspec.h \
 /work/wt/integ2/blocks/twampBl/twampTestSessionSwU/files/src/NetworkByteOrder.h \
 /work/wt/integ2/blocks/twampBl/twampTestSessionSwU/files/src/NtpTimestamp.h \
 /work/wt/integ2/blocks/twampBl/twampTestSessionSwU/files/src/TimestampSource.h \
 /work/wt/integ2/blocks/twampBl/twampTestSessionSwU/files/src/TraceFacade.h \
 /work/wt/integ2/blocks/twampBl/twampTestSessionSwU/files/src/com_quorin_tn_twamp.h \
 /usr/include/x86_64-linux-gnu/lttng/tracepoint.h /usr/include/stdio.h \
 /usr/lib/gcc/x86_64-linux-gnu/12/include/stdarg.h \
 /usr/include/x86_64-linux-gnu/bits/types/__fpos_t.h \
 /usr/include/x86_64-linux-gnu/bits/types/__mbstate_t.h \
 /usr/include/x86_64-linux-gnu/bits/types/__fpos64_t.h \
 /usr/include/x86_64-linux-gnu/bits/types/__FILE.h \
 /usr/include/x86_64-linux-gnu/bits/types/FILE.h \
 /usr/include/x86_64-linux-gnu/bits/types/struct_FILE.h \
 /usr/include/x86_64-linux-gnu/bits/types/cookie_io_functions_t.h \
 /usr/include/x86_64-linux-gnu/bits/stdio_lim.h \
 /usr/include/x86_64-linux-gnu/bits/stdio2-decl.h \
 /usr/include/x86_64-linux-gnu/bits/stdio.h \
 /usr/include/x86_64-linux-gnu/bits/stdio2.h /usr/include/c++/12/stdlib.h \
 /usr/include/x86_64-linux-gnu/lttng/tracepoint-types.h \
 /usr/include/x86_64-linux-gnu/lttng/tracepoint-rcu.h \
 /usr/include/x86_64-linux-gnu/urcu/compiler.h \
 /usr/include/x86_64-linux-gnu/lttng/urcu/pointer.h \
 /usr/include/x86_64-linux-gnu/urcu/arch.h \
 /usr/include/x86_64-linux-gnu/urcu/arch/x86.h \
 /usr/include/x86_64-linux-gnu/urcu/config.h \
 /usr/include/x86_64-linux-gnu/urcu/syscall-compat.h \
 /usr/include/syscall.h /usr/include/x86_64-linux-gnu/sys/syscall.h \
 /usr/include/x86_64-linux-gnu/asm/unistd.h \
 /usr/include/x86_64-linux-gnu/asm/unistd_64.h \
 /usr/include/x86_64-linux-gnu/bits/syscall.h \
 /usr/include/x86_64-linux-gnu/urcu/arch/generic.h \
 /usr/include/x86_64-linux-gnu/urcu/uatomic.h \
 /usr/include/x86_64-linux-gnu/urcu/uatomic/x86.h \
 /usr/include/x86_64-linux-gnu/urcu/system.h \
 /usr/include/x86_64-linux-gnu/urcu/uatomic/generic.h \
 /usr/include/x86_64-linux-gnu/lttng/ust-api-compat.h \
 /usr/include/x86_64-linux-gnu/lttng/ust-utils.h /usr/include/unistd.h \
 /usr/include/x86_64-linux-gnu/bits/posix_opt.h \
 /usr/include/x86_64-linux-gnu/bits/environments.h \
 /usr/include/x86_64-linux-gnu/bits/confname.h \
 /usr/include/x86_64-linux-gnu/bits/getopt_posix.h \
 /usr/include/x86_64-linux-gnu/bits/getopt_core.h \
 /usr/include/x86_64-linux-gnu/bits/unistd.h \
 /usr/include/x86_64-linux-gnu/bits/unistd_ext.h \
 /usr/include/linux/close_range.h /usr/include/dlfcn.h \
 /usr/include/x86_64-linux-gnu/bits/dlfcn.h \
 /usr/include/x86_64-linux-gnu/bits/dl_find_object.h \
 /usr/lib/gcc/x86_64-linux-gnu/12/include/stdbool.h \
 /usr/include/x86_64-linux-gnu/lttng/ust-config.h \
 /usr/include/x86_64-linux-gnu/lttng/ust-compiler.h /usr/include/assert.h \
 /usr/include/x86_64-linux-gnu/lttng/ust-tracer.h \
 /usr/include/x86_64-linux-gnu/lttng/ust-arch.h \
 /usr/include/x86_64-linux-gnu/lttng/ust-version.h \
 /usr/include/x86_64-linux-gnu/lttng/tracepoint-event.h \
 /work/wt/integ2/platform/tracepoints/include/com_quorin_tn_troubleshooting.h
