# CMake generated Testfile for 
# Source directory: /work/wt/integ2
# Build directory: /work/wt/integ2/obj-x86_64-linux-gnu
# 
# This file includes the relevant testing commands required for 
# testing this directory and lists subdirectories to be tested as well.
subdirs("platform")
subdirs("blocks/twampBl/twampTestSessionSwU/files")
subdirs("tools")
subdirs("packaging")
