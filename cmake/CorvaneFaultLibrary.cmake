# corvane_add_fault_library(NAME SOURCES file... [SYSROOT dir])
#
# Builds lib<NAME>.so, a fault library that hook cases can name, from C and C++ sources (the
# project must enable both languages), against the headers of this source tree:
#   - shadowhook.h, the inline-hook API and its shared-mode macros (the host engine's copy; set
#     CORVANE_SHADOWHOOK_INCLUDE_DIR to a device's copy when cross-building);
#   - faultreport.h (report that a replacement ran, read the group's arguments), whose
#     implementation is compiled into the library, and the controller's interface it wraps.
# The inline-hook and controller functions are not linked: the camera service's process provides
# them when it loads the library. Only functions marked visibility("default") are exported.
# With SYSROOT, every build copies the library into SYSROOT/vendor/lib64, where the hook-case
# file names it "vendor/lib64/lib<NAME>.so".
#
# From a project of your own:
#   cmake_minimum_required(VERSION 3.18)
#   project(my_faults C CXX)
#   include(/path/to/source/cmake/CorvaneFaultLibrary.cmake)
#   corvane_add_fault_library(my_fault SOURCES my_fault.c SYSROOT /path/to/build/sysroot)
include_guard(GLOBAL)

get_filename_component(CORVANE_FAULT_SOURCE_ROOT ${CMAKE_CURRENT_LIST_DIR}/.. ABSOLUTE)
set(CORVANE_SHADOWHOOK_INCLUDE_DIR ${CORVANE_FAULT_SOURCE_ROOT}/platform/host/inlinehook/include
    CACHE PATH "Directory of the shadowhook.h fault libraries are built against")

function(corvane_add_fault_library name)
    cmake_parse_arguments(PARSE_ARGV 1 FAULT "" "SYSROOT" "SOURCES")
    if(NOT FAULT_SOURCES)
        message(FATAL_ERROR "corvane_add_fault_library(${name}): SOURCES is required")
    endif()
    if(FAULT_UNPARSED_ARGUMENTS)
        message(FATAL_ERROR
            "corvane_add_fault_library(${name}): unexpected ${FAULT_UNPARSED_ARGUMENTS}")
    endif()
    add_library(${name} SHARED ${FAULT_SOURCES}
        ${CORVANE_FAULT_SOURCE_ROOT}/host/faulttemplate/faultreport.cpp)
    target_include_directories(${name} PRIVATE
        ${CORVANE_FAULT_SOURCE_ROOT}
        ${CORVANE_FAULT_SOURCE_ROOT}/host/faulttemplate
        ${CORVANE_SHADOWHOOK_INCLUDE_DIR})
    target_link_libraries(${name} PRIVATE ${CMAKE_DL_LIBS})
    # Two fault libraries in one process must not bind to each other's helpers.
    set_target_properties(${name} PROPERTIES
        CXX_STANDARD 17 CXX_STANDARD_REQUIRED ON
        C_VISIBILITY_PRESET hidden CXX_VISIBILITY_PRESET hidden VISIBILITY_INLINES_HIDDEN ON)
    if(FAULT_SYSROOT)
        add_custom_command(TARGET ${name} POST_BUILD
            COMMAND ${CMAKE_COMMAND} -E make_directory ${FAULT_SYSROOT}/vendor/lib64
            COMMAND ${CMAKE_COMMAND} -E copy $<TARGET_FILE:${name}> ${FAULT_SYSROOT}/vendor/lib64/
            COMMENT "Copying lib${name}.so into ${FAULT_SYSROOT}/vendor/lib64" VERBATIM)
    endif()
endfunction()
