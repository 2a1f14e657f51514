# Services: the base with tokens and connection, user information and the document list.
target_sources(quire PRIVATE
  ${CMAKE_CURRENT_LIST_DIR}/content_download.cpp
  ${CMAKE_CURRENT_LIST_DIR}/docs_service.cpp
  ${CMAKE_CURRENT_LIST_DIR}/download_target.cpp
  ${CMAKE_CURRENT_LIST_DIR}/o_auth_signers.cpp
  ${CMAKE_CURRENT_LIST_DIR}/service.cpp
  ${CMAKE_CURRENT_LIST_DIR}/user_info_service.cpp
)
