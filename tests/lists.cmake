# The file reading suites can make fclose(3) fail.
foreach(suite IN ITEMS splitter_test config_test)
    if(TARGET ${suite})
        target_sources(${suite} PRIVATE ${CMAKE_CURRENT_SOURCE_DIR}/support/fclose_fail.cpp)
    endif()
endforeach()
