# Fault injection with a loss ledger, and the soak: real zemd and client
# processes driven by tests/e2e_fault_ledger.py and tests/soak.py. Included
# from tests/CMakeLists.txt on Linux hosts.
# The client runs either transport.
add_executable(e2e_fault_client e2e_fault_client.cpp ${ZEM_ALL_TSAN_SRC})
zem_warnings(e2e_fault_client)
target_link_libraries(e2e_fault_client PRIVATE zem_capi)

find_package(Python3 COMPONENTS Interpreter)
if(Python3_FOUND)
    set(_fault_args --zemd $<TARGET_FILE:zemd> --client $<TARGET_FILE:e2e_fault_client>)
    # The quick scenarios: a few seconds each, bounded by the script itself.
    add_test(NAME FaultLedger.QuickScenariosLoseNothingTheDesignKeeps
             COMMAND Python3::Interpreter ${CMAKE_CURRENT_SOURCE_DIR}/e2e_fault_ledger.py
                     ${_fault_args} --quick)
    set_tests_properties(FaultLedger.QuickScenariosLoseNothingTheDesignKeeps
                         PROPERTIES TIMEOUT 300)
    # Two threads logging at full speed, no application lock, while zemd
    # starts, merges and stops campaigns every few milliseconds and is killed
    # and restarted: every counted sample delivered or kept, on both
    # transports.
    add_test(NAME Stress.LoggingAtFullSpeedWhileZemdChurnsCampaignsAndDiesLosesNothing
             COMMAND Python3::Interpreter ${CMAKE_CURRENT_SOURCE_DIR}/e2e_stress.py
                     ${_fault_args} --seconds 6)
    set_tests_properties(Stress.LoggingAtFullSpeedWhileZemdChurnsCampaignsAndDiesLosesNothing
                         PROPERTIES TIMEOUT 240)
endif()
