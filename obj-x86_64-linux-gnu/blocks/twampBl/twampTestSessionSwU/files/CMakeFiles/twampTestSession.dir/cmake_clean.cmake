file(REMOVE_RECURSE
  "CMakeFiles/twampTestSession.dir/src/TwampTestSessionMain.cc.o"
  "CMakeFiles/twampTestSession.dir/src/TwampTestSessionMain.cc.o.d"
  "twampTestSession"
  "twampTestSession.pdb"
)

# Per-language clean rules from dependency scanning.
foreach(lang CXX)
  include(CMakeFiles/twampTestSession.dir/cmake_clean_${lang}.cmake OPTIONAL)
endforeach()
