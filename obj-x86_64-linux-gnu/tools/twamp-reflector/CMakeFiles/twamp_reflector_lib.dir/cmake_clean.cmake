file(REMOVE_RECURSE
  "CMakeFiles/twamp_reflector_lib.dir/Impairments.cc.o"
  "CMakeFiles/twamp_reflector_lib.dir/Impairments.cc.o.d"
  "CMakeFiles/twamp_reflector_lib.dir/JsonLine.cc.o"
  "CMakeFiles/twamp_reflector_lib.dir/JsonLine.cc.o.d"
  "CMakeFiles/twamp_reflector_lib.dir/Reflector.cc.o"
  "CMakeFiles/twamp_reflector_lib.dir/Reflector.cc.o.d"
  "CMakeFiles/twamp_reflector_lib.dir/ReflectorOptions.cc.o"
  "CMakeFiles/twamp_reflector_lib.dir/ReflectorOptions.cc.o.d"
  "CMakeFiles/twamp_reflector_lib.dir/ReflectorSocket.cc.o"
  "CMakeFiles/twamp_reflector_lib.dir/ReflectorSocket.cc.o.d"
  "CMakeFiles/twamp_reflector_lib.dir/ReplyBuilder.cc.o"
  "CMakeFiles/twamp_reflector_lib.dir/ReplyBuilder.cc.o.d"
  "CMakeFiles/twamp_reflector_lib.dir/RestartSchedule.cc.o"
  "CMakeFiles/twamp_reflector_lib.dir/RestartSchedule.cc.o.d"
  "CMakeFiles/twamp_reflector_lib.dir/TruthQueue.cc.o"
  "CMakeFiles/twamp_reflector_lib.dir/TruthQueue.cc.o.d"
  "CMakeFiles/twamp_reflector_lib.dir/TruthWriter.cc.o"
  "CMakeFiles/twamp_reflector_lib.dir/TruthWriter.cc.o.d"
  "CMakeFiles/twamp_reflector_lib.dir/__/__/blocks/twampBl/twampTestSessionSwU/files/src/NtpTimestamp.cc.o"
  "CMakeFiles/twamp_reflector_lib.dir/__/__/blocks/twampBl/twampTestSessionSwU/files/src/NtpTimestamp.cc.o.d"
  "CMakeFiles/twamp_reflector_lib.dir/__/__/blocks/twampBl/twampTestSessionSwU/files/src/OwampTestMessage.cc.o"
  "CMakeFiles/twamp_reflector_lib.dir/__/__/blocks/twampBl/twampTestSessionSwU/files/src/OwampTestMessage.cc.o.d"
  "CMakeFiles/twamp_reflector_lib.dir/__/__/blocks/twampBl/twampTestSessionSwU/files/src/TwampTestMessage.cc.o"
  "CMakeFiles/twamp_reflector_lib.dir/__/__/blocks/twampBl/twampTestSessionSwU/files/src/TwampTestMessage.cc.o.d"
  "libtwamp_reflector_lib.a"
  "libtwamp_reflector_lib.pdb"
)

# Per-language clean rules from dependency scanning.
foreach(lang CXX)
  include(CMakeFiles/twamp_reflector_lib.dir/cmake_clean_${lang}.cmake OPTIONAL)
endforeach()
