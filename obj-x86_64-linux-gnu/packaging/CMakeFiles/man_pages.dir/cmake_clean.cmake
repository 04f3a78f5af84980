file(REMOVE_RECURSE
  "../man/twamp-ctl.1"
  "../man/twamp-exporter.1"
  "../man/twamp-reflector.1"
  "../man/twampTestSession.8"
  "CMakeFiles/man_pages"
)

# Per-language clean rules from dependency scanning.
foreach(lang )
  include(CMakeFiles/man_pages.dir/cmake_clean_${lang}.cmake OPTIONAL)
endforeach()
