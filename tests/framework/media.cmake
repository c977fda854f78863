# Stored-file streams, casters and station files.
add_executable(media_test media_asf.cpp media_cast.cpp media_nsc.cpp media_stream.cpp media_ts.cpp)
target_compile_definitions(media_test PRIVATE SAMPLES="${PROJECT_SOURCE_DIR}/samples/")
target_link_libraries(media_test PRIVATE pccast_flags framework_media qxapi GTest::gtest_main)
set_target_properties(media_test PROPERTIES CROSSCOMPILING_EMULATOR ${PCCAST_IN_NAMESPACE})
gtest_discover_tests(media_test DISCOVERY_TIMEOUT 60 PROPERTIES TIMEOUT 120)

# The fuzz targets' corpora as regression inputs.
if(NOT PCCAST_BUILD_FUZZ)
    add_subdirectory(${PROJECT_SOURCE_DIR}/fuzz ${PROJECT_BINARY_DIR}/fuzz)
endif()
