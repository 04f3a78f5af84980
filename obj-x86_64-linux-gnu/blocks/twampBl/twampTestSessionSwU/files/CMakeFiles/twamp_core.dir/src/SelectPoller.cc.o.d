blocks/twampBl/twampTestSessionSwU/files/CMakeFiles/twamp_core.dir/src/SelectPoller.cc.o: \
 /work/wt/integ2/blocks/twampBl/twampTestSessionSwU/files/src/SelectPoller.cc \
 /usr/include/stdc-predef.h \
 /work/wt/integ2/blocks/twampBl/twampTestSessionSwU/files/src/SelectPoller.h \
 /usr/include/x86_64-linux-gnu/sys/select.h /usr/include/features.h \
 /usr/include/features-time64.h \
 /usr/include/x86_64-linux-gnu/bits/wordsize.h \
 /usr/include/x86_64-linux-gnu/bits/timesize.h \
 /usr/include/x86_64-linux-gnu/sys/cdefs.h \
 /usr/include/x86_64-linux-gnu/bits/long-double.h \
 /usr/include/x86_64-linux-gnu/gnu/stubs.h \
 /usr/include/x86_64-linux-gnu/gnu/stubs-64.h \
 /usr/include/x86_64-linux-gnu/bits/types.h \
 /usr/include/x86_64-linux-gnu/bits/typesizes.h \
 /usr/include/x86_64-linux-gnu/bits/time64.h \
 /usr/include/x86_64-linux-gnu/bits/select.h \
 /usr/include/x86_64-linux-gnu/bits/types/sigset_t.h \
 /usr/include/x86_64-linux-gnu/bits/types/__sigset_t.h \
 /usr/include/x86_64-linux-gnu/bits/types/time_t.h \
 /usr/include/x86_64-linux-gnu/bits/types/struct_timeval.h \
 /usr/include/x86_64-linux-gnu/bits/types/struct_timespec.h \
 /usr/include/x86_64-linux-gnu/bits/endian.h \
 /usr/include/x86_64-linux-gnu/bits/endianness.h \
 /usr/include/x86_64-linux-gnu/bits/select2.h \
 /usr/include/c++/12/functional \
 /usr/include/x86_64-linux-gnu/c++/12/bits/c++config.h \
 /usr/include/x86_64-linux-gnu/c++/12/bits/os_defines.h \
 /usr/include/x86_64-linux-gnu/c++/12/bits/cpu_defines.h \
 /usr/include/c++/12/pstl/pstl_config.h \
 /usr/include/c++/12/bits/stl_function.h /usr/include/c++/12/bits/move.h \
 /usr/include/c++/12/type_traits /usr/include/c++/12/backward/binders.h \
 /usr/include/c++/12/new /usr/include/c++/12/bits/exception.h \
 /usr/include/c++/12/tuple /usr/include/c++/12/bits/stl_pair.h \
 /usr/include/c++/12/bits/utility.h \
 /usr/include/c++/12/bits/uses_allocator.h \
 /usr/include/c++/12/bits/invoke.h \
 /usr/include/c++/12/bits/functional_hash.h \
 /usr/include/c++/12/bits/hash_bytes.h /usr/include/c++/12/bits/refwrap.h \
 /usr/include/c++/12/bits/std_function.h /usr/include/c++/12/typeinfo \
 /usr/include/c++/12/bits/functexcept.h \
 /usr/include/c++/12/bits/exception_defines.h \
 /usr/include/c++/12/unordered_map /usr/include/c++/12/initializer_list \
 /usr/include/c++/12/bits/allocator.h \
 /usr/include/x86_64-linux-gnu/c++/12/bits/c++allocator.h \
 /usr/include/c++/12/bits/new_allocator.h \
 /usr/include/c++/12/bits/memoryfwd.h \
 /usr/include/c++/12/ext/alloc_traits.h \
 /usr/include/c++/12/bits/alloc_traits.h \
 /usr/include/c++/12/bits/stl_construct.h \
 /usr/include/c++/12/bits/stl_iterator_base_types.h \
 /usr/include/c++/12/bits/stl_iterator_base_funcs.h \
 /usr/include/c++/12/bits/concept_check.h \
 /usr/include/c++/12/debug/assertions.h \
 /usr/include/c++/12/bits/ptr_traits.h \
 /usr/include/c++/12/ext/numeric_traits.h \
 /usr/include/c++/12/bits/cpp_type_traits.h \
 /usr/include/c++/12/ext/type_traits.h \
 /usr/include/c++/12/ext/aligned_buffer.h \
 /usr/include/c++/12/bits/hashtable.h \
 /usr/include/c++/12/bits/hashtable_policy.h \
 /usr/include/c++/12/bits/stl_algobase.h \
 /usr/include/c++/12/bits/stl_iterator.h \
 /usr/include/c++/12/debug/debug.h \
 /usr/include/c++/12/bits/predefined_ops.h \
 /usr/include/c++/12/bits/enable_special_members.h \
 /usr/include/c++/12/bits/node_handle.h \
 /usr/include/c++/12/bits/unordered_map.h \
 /usr/include/c++/12/bits/range_access.h \
 /usr/include/c++/12/bits/erase_if.h /usr/include/c++/12/vector \
 /usr/include/c++/12/bits/stl_uninitialized.h \
 /usr/include/c++/12/bits/stl_vector.h \
 /usr/include/c++/12/bits/stl_bvector.h \
 /usr/include/c++/12/bits/vector.tcc /usr/include/c++/12/array \
 /usr/include/c++/12/compare /usr/include/c++/12/bits/stl_algo.h \
 /usr/include/c++/12/bits/algorithmfwd.h \
 /usr/include/c++/12/bits/stl_heap.h \
 /usr/include/c++/12/bits/stl_tempbuf.h \
 /usr/include/c++/12/bits/uniform_int_dist.h /usr/include/c++/12/cstdlib \
 /usr/include/stdlib.h \
 /usr/include/x86_64-linux-gnu/bits/libc-header-start.h \
 /usr/lib/gcc/x86_64-linux-gnu/12/include/stddef.h \
 /usr/include/x86_64-linux-gnu/bits/waitflags.h \
 /usr/include/x86_64-linux-gnu/bits/waitstatus.h \
 /usr/include/x86_64-linux-gnu/bits/floatn.h \
 /usr/include/x86_64-linux-gnu/bits/floatn-common.h \
 /usr/include/x86_64-linux-gnu/bits/types/locale_t.h \
 /usr/include/x86_64-linux-gnu/bits/types/__locale_t.h \
 /usr/include/x86_64-linux-gnu/sys/types.h \
 /usr/include/x86_64-linux-gnu/bits/types/clock_t.h \
 /usr/include/x86_64-linux-gnu/bits/types/clockid_t.h \
 /usr/include/x86_64-linux-gnu/bits/types/timer_t.h \
 /usr/include/x86_64-linux-gnu/bits/stdint-intn.h /usr/include/endian.h \
 /usr/include/x86_64-linux-gnu/bits/byteswap.h \
 /usr/include/x86_64-linux-gnu/bits/uintn-identity.h \
 /usr/include/x86_64-linux-gnu/bits/pthreadtypes.h \
 /usr/include/x86_64-linux-gnu/bits/thread-shared-types.h \
 /usr/include/x86_64-linux-gnu/bits/pthreadtypes-arch.h \
 /usr/include/x86_64-linux-gnu/bits/atomic_wide_counter.h \
 /usr/include/x86_64-linux-gnu/bits/struct_mutex.h \
 /usr/include/x86_64-linux-gnu/bits/struct_rwlock.h /usr/include/alloca.h \
 /usr/include/x86_64-linux-gnu/bits/stdlib-bsearch.h \
 /usr/include/x86_64-linux-gnu/bits/stdlib-float.h \
 /usr/include/x86_64-linux-gnu/bits/stdlib.h \
 /usr/include/c++/12/bits/std_abs.h /usr/include/c++/12/map \
 /usr/include/c++/12/bits/stl_tree.h /usr/include/c++/12/bits/stl_map.h \
 /usr/include/c++/12/bits/stl_multimap.h \
 /work/wt/integ2/blocks/twampBl/twampTestSessionSwU/files/src/IoPoller.h \
 /usr/include/c++/12/utility /usr/include/c++/12/bits/stl_relops.h \
 /work/wt/integ2/blocks/twampBl/twampTestSessionSwU/files/src/TraceFacade.h \
 /usr/include/c++/12/cstddef \
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
 /usr/lib/gcc/x86_64-linux-gnu/12/include/stdint.h /usr/include/stdint.h \
 /usr/include/x86_64-linux-gnu/bits/wchar.h \
 /usr/include/x86_64-linux-gnu/bits/stdint-uintn.h \
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
 /usr/include/string.h /usr/include/strings.h \
 /usr/include/x86_64-linux-gnu/bits/strings_fortified.h \
 /usr/include/x86_64-linux-gnu/bits/string_fortified.h \
 /usr/lib/gcc/x86_64-linux-gnu/12/include/stdbool.h \
 /usr/include/x86_64-linux-gnu/lttng/ust-config.h \
 /usr/include/x86_64-linux-gnu/lttng/ust-compiler.h /usr/include/assert.h \
 /usr/include/x86_64-linux-gnu/lttng/ust-tracer.h \
 /usr/include/x86_64-linux-gnu/lttng/ust-arch.h \
 /usr/include/x86_64-linux-gnu/lttng/ust-version.h \
 /usr/include/x86_64-linux-gnu/lttng/tracepoint-event.h \
 /work/wt/integ2/platform/tracepoints/include/com_quorin_tn_troubleshooting.h
