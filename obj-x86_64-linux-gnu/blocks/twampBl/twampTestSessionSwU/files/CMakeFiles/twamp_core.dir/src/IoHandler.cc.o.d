blocks/twampBl/twampTestSessionSwU/files/CMakeFiles/twamp_core.dir/src/IoHandler.cc.o: \
 /work/wt/integ2/blocks/twampBl/twampTestSessionSwU/files/src/IoHandler.cc \
 /usr/include/stdc-predef.h \
 /work/wt/integ2/blocks/twampBl/twampTestSessionSwU/files/src/IoHandler.h \
 /usr/include/c++/12/set /usr/include/c++/12/bits/stl_tree.h \
 /usr/include/c++/12/bits/stl_algobase.h \
 /usr/include/x86_64-linux-gnu/c++/12/bits/c++config.h \
 /usr/include/x86_64-linux-gnu/c++/12/bits/os_defines.h \
 /usr/include/features.h /usr/include/features-time64.h \
 /usr/include/x86_64-linux-gnu/bits/wordsize.h \
 /usr/include/x86_64-linux-gnu/bits/timesize.h \
 /usr/include/x86_64-linux-gnu/sys/cdefs.h \
 /usr/include/x86_64-linux-gnu/bits/long-double.h \
 /usr/include/x86_64-linux-gnu/gnu/stubs.h \
 /usr/include/x86_64-linux-gnu/gnu/stubs-64.h \
 /usr/include/x86_64-linux-gnu/c++/12/bits/cpu_defines.h \
 /usr/include/c++/12/pstl/pstl_config.h \
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
 /usr/include/c++/12/bits/allocator.h \
 /usr/include/x86_64-linux-gnu/c++/12/bits/c++allocator.h \
 /usr/include/c++/12/bits/new_allocator.h /usr/include/c++/12/new \
 /usr/include/c++/12/bits/exception.h \
 /usr/include/c++/12/bits/memoryfwd.h \
 /usr/include/c++/12/bits/stl_function.h \
 /usr/include/c++/12/backward/binders.h \
 /usr/include/c++/12/ext/alloc_traits.h \
 /usr/include/c++/12/bits/alloc_traits.h \
 /usr/include/c++/12/bits/stl_construct.h \
 /usr/include/c++/12/ext/aligned_buffer.h \
 /usr/include/c++/12/bits/node_handle.h \
 /usr/include/c++/12/bits/stl_set.h /usr/include/c++/12/initializer_list \
 /usr/include/c++/12/bits/stl_multiset.h \
 /usr/include/c++/12/bits/range_access.h \
 /usr/include/c++/12/bits/erase_if.h
