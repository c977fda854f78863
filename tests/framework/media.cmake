# Stored-file streams, casters and station files.
add_executable(media_test
    ${CMAKE_CURRENT_LIST_DIR}/media_asf.cpp
    ${CMAKE_CURRENT_LIST_DIR}/media_cast.cpp
    ${CMAKE_CURRENT_LIST_DIR}/media_nsc.cpp
    ${CMAKE_CURRENT_LIST_DIR}/media_stream.cpp
    ${CMAKE_CURRENT_LIST_DIR}/media_ts.cpp)
target_link_libraries(media_test PRIVATE pccast_flags framework_media qxapi GTest::gtest_main)
set_target_properties(media_test PROPERTIES CROSSCOMPILING_EMULATOR ${CMAKE_CURRENT_LIST_DIR}/../../script/in-namespace)
gtest_discover_tests(media_test DISCOVERY_TIMEOUT 60 PROPERTIES TIMEOUT 120)

# Plays a file through the framework, records what arrives and says how the pace was.
add_executable(play_file ${CMAKE_CURRENT_LIST_DIR}/play_file.cpp)
target_link_libraries(play_file PRIVATE pccast_flags framework_media qxapi)
add_test(NAME media_receivers
    COMMAND ${CMAKE_CURRENT_LIST_DIR}/../../script/in-namespace ${CMAKE_CURRENT_LIST_DIR}/../media_receivers.sh
            $<TARGET_FILE:play_file>
    WORKING_DIRECTORY ${CMAKE_CURRENT_LIST_DIR}/../..)
set_tests_properties(media_receivers PROPERTIES SKIP_RETURN_CODE 77 TIMEOUT 120)

# The fuzz targets' corpora as regression inputs.
if(NOT PCCAST_BUILD_FUZZ)
    add_subdirectory(${PROJECT_SOURCE_DIR}/fuzz ${PROJECT_BINARY_DIR}/fuzz)
endif()
