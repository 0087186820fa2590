# The decoder of the shared area that the tests check with. Included by whoever needs it.
if(NOT TARGET tarvo_test_area)
    add_library(tarvo_test_area STATIC
        ${CMAKE_CURRENT_LIST_DIR}/area.cpp
        ${CMAKE_CURRENT_LIST_DIR}/area_rules.cpp)
    target_compile_options(tarvo_test_area PRIVATE -O1) # reads whole areas, in nearly every test
    tarvo_without_sanitizers(tarvo_test_area)
    target_include_directories(tarvo_test_area PUBLIC ${CMAKE_CURRENT_LIST_DIR})
    target_link_libraries(tarvo_test_area PRIVATE tarvo_warnings)
endif()
