# Tests of the binder transport and the host binder runtime. Included from
# tests/CMakeLists.txt on Linux hosts.

# The platform's code generator makes independent IZEMManager/IZEMCallback
# classes from tests/aidl; they go into a peer program of their own, since
# they share their names with the hand-written classes.
find_program(ZEM_AIDL aidl REQUIRED)
set(_aidl_dir ${CMAKE_CURRENT_SOURCE_DIR}/aidl)
set(_aidl_out ${CMAKE_CURRENT_BINARY_DIR}/aidl_gen)
set(_aidl_srcs)
foreach(_iface IZEMManager IZEMCallback)
    string(REGEX REPLACE "^I" "" _base ${_iface})
    add_custom_command(
        OUTPUT ${_aidl_out}/${_iface}.cpp ${_aidl_out}/include/${_iface}.h
               ${_aidl_out}/include/Bp${_base}.h ${_aidl_out}/include/Bn${_base}.h
        COMMAND ${CMAKE_COMMAND} -E make_directory ${_aidl_out}/include
        COMMAND ${ZEM_AIDL} --lang=cpp -I${_aidl_dir} -h ${_aidl_out}/include -o ${_aidl_out}
                ${_aidl_dir}/${_iface}.aidl
        DEPENDS ${_aidl_dir}/${_iface}.aidl ${_aidl_dir}/IZEMCallback.aidl
        COMMENT "aidl ${_iface}.aidl"
        VERBATIM)
    list(APPEND _aidl_srcs ${_aidl_out}/${_iface}.cpp)
endforeach()

add_executable(binder_aidl_peer binder_aidl_peer.cpp ${ZEM_BINDER_TSAN_SRC} ${_aidl_srcs})
# Our own source keeps the warnings; the generated files are exempt.
set_source_files_properties(binder_aidl_peer.cpp ${ZEM_BINDER_TSAN_SRC} PROPERTIES
    COMPILE_OPTIONS "-Wall;-Wextra;-Werror")
target_include_directories(binder_aidl_peer PRIVATE ${_aidl_out}/include)
target_link_libraries(binder_aidl_peer PRIVATE zem_host_binder)

zem_add_test(binder_transport_test binder_transport_test.cpp ${ZEM_BINDER_TSAN_SRC})
add_dependencies(binder_transport_test binder_aidl_peer)
target_compile_definitions(binder_transport_test PRIVATE
    BINDER_AIDL_PEER_BIN="$<TARGET_FILE:binder_aidl_peer>")

# The transport's binder sources against the platform's real libbinder
# headers (an older release than the host runtime), with no host header on
# the path: the same code builds for a device.
foreach(_src IZEMCallback.cpp IZEMManager.cpp zemAIDLClient.cpp)
    add_test(NAME BinderTransport.CompilesAgainstTheRealLibbinderHeaders.${_src}
             COMMAND ${CMAKE_CXX_COMPILER} -std=c++17 -fsyntax-only -Wall -Wextra -Werror
                     -I${PROJECT_SOURCE_DIR} -I${PROJECT_SOURCE_DIR}/include
                     -I${PROJECT_BINARY_DIR}/proto -isystem ${ZEM_LIBUTILS_INCLUDE}
                     ${PROJECT_SOURCE_DIR}/transport/${_src})
endforeach()

# End to end: zemd and a two-collector client as separate processes.
add_executable(binder_e2e_client binder_e2e_client.cpp ${ZEM_BINDER_TSAN_SRC})
zem_warnings(binder_e2e_client)
target_link_libraries(binder_e2e_client PRIVATE zem_capi)
zem_add_test(binder_e2e_test binder_e2e_test.cpp)
add_dependencies(binder_e2e_test binder_e2e_client zemd)
target_compile_definitions(binder_e2e_test PRIVATE
    ZEMD_BIN="$<TARGET_FILE:zemd>"
    BINDER_E2E_CLIENT_BIN="$<TARGET_FILE:binder_e2e_client>")
