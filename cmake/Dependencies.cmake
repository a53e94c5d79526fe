# Every dependency comes from the distribution's packages (scripts/setup.sh installs them).
set(THREADS_PREFER_PTHREAD_FLAG ON)
find_package(Threads REQUIRED)
find_package(SQLite3 REQUIRED)
find_package(Protobuf REQUIRED)
find_package(RapidJSON QUIET)

# liblog built for Linux keeps its headers and library in an "android" subfolder.
find_path(LIBLOG_INCLUDE_DIR android/log.h PATH_SUFFIXES android REQUIRED)
find_library(LIBLOG_LIBRARY NAMES log PATH_SUFFIXES android REQUIRED
    PATHS /usr/lib/${CMAKE_LIBRARY_ARCHITECTURE}/android)

add_library(corvane_deps INTERFACE)
add_library(corvane::deps ALIAS corvane_deps)
target_include_directories(corvane_deps INTERFACE ${LIBLOG_INCLUDE_DIR} ${Protobuf_INCLUDE_DIRS})
target_link_libraries(corvane_deps INTERFACE SQLite::SQLite3 ${Protobuf_LIBRARIES} ${LIBLOG_LIBRARY})
target_compile_definitions(corvane_deps INTERFACE RAPIDJSON_HAS_STDSTRING=1)
# Keeps liblog findable wherever the libraries are copied (a sysroot's vendor/lib64).
get_filename_component(LIBLOG_DIR ${LIBLOG_LIBRARY} DIRECTORY)
target_link_options(corvane_deps INTERFACE -Wl,-rpath,${LIBLOG_DIR})

# Generates C++ for the given .proto files into <build>/proto and adds it to the target.
function(corvane_add_protos target)
    set(outdir ${CMAKE_BINARY_DIR}/proto)
    file(MAKE_DIRECTORY ${outdir})
    foreach(proto ${ARGN})
        get_filename_component(name ${proto} NAME_WE)
        get_filename_component(dir ${proto} DIRECTORY)
        add_custom_command(
            OUTPUT ${outdir}/${name}.pb.cc ${outdir}/${name}.pb.h
            COMMAND ${Protobuf_PROTOC_EXECUTABLE} --cpp_out=${outdir} -I ${dir} ${proto}
            DEPENDS ${proto} VERBATIM)
        target_sources(${target} PRIVATE ${outdir}/${name}.pb.cc)
        # Generated code is not ours to keep warning-free.
        set_source_files_properties(${outdir}/${name}.pb.cc PROPERTIES COMPILE_OPTIONS -w)
    endforeach()
endfunction()
