# Builds the dashboard's files into zub-collector: a source file generated at
# build time (embed_assets.cmake) holds each file's bytes, assembled in with
# .incbin so they are never turned into C++ text, and a table of names and content
# types. The files' digests are written into that source too, so that a compiler
# cache, which sees the source and not what .incbin reads, rebuilds it whenever
# a file changes.
find_file(ZUB_CHARTJS chart.min.js
  PATHS /usr/share/javascript/chart.js
  NO_DEFAULT_PATH
  DOC "Chart.js (Debian package libjs-chart.js), built into the collector's dashboard")
if(NOT ZUB_CHARTJS)
  message(FATAL_ERROR "Chart.js not found: install libjs-chart.js (scripts/deps does)")
endif()
get_filename_component(ZUB_CHARTJS_REAL "${ZUB_CHARTJS}" REALPATH)

set(ZUB_DASHBOARD_DIR ${CMAKE_CURRENT_SOURCE_DIR}/dashboard)
set(ZUB_DASHBOARD_ASSETS_CPP ${CMAKE_CURRENT_BINARY_DIR}/DashboardAssetsData.cpp)
add_custom_command(
  OUTPUT ${ZUB_DASHBOARD_ASSETS_CPP}
  COMMAND ${CMAKE_COMMAND} -DDASHBOARD_DIR=${ZUB_DASHBOARD_DIR} -DCHARTJS=${ZUB_CHARTJS_REAL}
    -DOUTPUT=${ZUB_DASHBOARD_ASSETS_CPP} -P ${CMAKE_CURRENT_SOURCE_DIR}/embed_assets.cmake
  DEPENDS ${ZUB_DASHBOARD_DIR}/index.html ${ZUB_DASHBOARD_DIR}/app.js ${ZUB_DASHBOARD_DIR}/style.css
    ${ZUB_CHARTJS_REAL} ${CMAKE_CURRENT_SOURCE_DIR}/embed_assets.cmake
  COMMENT "Embedding the dashboard's files"
  VERBATIM)
