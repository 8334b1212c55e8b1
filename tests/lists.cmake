# The file reading suites can make fclose(3) fail (support/io_faults.cpp).
foreach(suite IN ITEMS splitter_test config_test)
    if(TARGET ${suite})
        target_sources(${suite} PRIVATE ${CMAKE_CURRENT_SOURCE_DIR}/support/io_faults.cpp)
    endif()
endforeach()
