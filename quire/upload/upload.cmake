# Resumable upload (ConnectionUtils).
target_sources(quire PRIVATE ${CMAKE_CURRENT_LIST_DIR}/connection_utils.cpp
  ${CMAKE_CURRENT_LIST_DIR}/internal/upload_source.cpp
  ${CMAKE_CURRENT_LIST_DIR}/resumable_uploader.cpp)
