set(port_processor s390x)
set(port_triple s390x-linux-gnu)
include("${CMAKE_CURRENT_LIST_DIR}/MoxPort.cmake")
