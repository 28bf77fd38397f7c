# The collector's request decoding as a small library of its own, so that the
# fuzz targets can link it in builds that leave the collector itself out.
if(NOT TARGET zub_collector_decode)
  add_library(zub_collector_decode STATIC ${PROJECT_SOURCE_DIR}/tools/collector/RequestDecoder.cpp)
  target_include_directories(zub_collector_decode PUBLIC ${PROJECT_SOURCE_DIR}/tools/collector)
  target_link_libraries(zub_collector_decode PUBLIC zub_internal)
  target_compile_options(zub_collector_decode PRIVATE ${ZUB_WARNINGS})
endif()
