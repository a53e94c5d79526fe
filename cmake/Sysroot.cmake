# `sysroot` lays out a device-shaped tree (odm/etc/camera, data/vendor/camera, vendor/lib64,
# sys/module/camera/parameters) in <build>/sysroot with every built library and the samples.
set(CORVANE_SYSROOT_DIR ${CMAKE_BINARY_DIR}/sysroot CACHE PATH "Where `sysroot` lays out the tree")
add_custom_target(sysroot
    COMMAND ${CMAKE_SOURCE_DIR}/scripts/make-sysroot.sh ${CORVANE_SYSROOT_DIR} ${CMAKE_BINARY_DIR}
    COMMENT "Laying out the sysroot in ${CORVANE_SYSROOT_DIR}" VERBATIM)
add_dependencies(sysroot corvanesystem_core)
foreach(t corvane_messagecenter corvane_configreader corvane_sample_sensor corvane_sample_fault
        corvane_camera_service vxcdb)
    if(TARGET ${t})
        add_dependencies(sysroot ${t})
    endif()
endforeach()
