# kam-shadow-app: a GLES 3.0 X11 program whose frames depend on GL state a
# queuing layer must capture at call time (pixel-store state, client memory,
# mappings, object names), for the shadow_state end-to-end check. The root
# project provides the imported targets.

add_executable(kam-shadow-app ${CMAKE_CURRENT_LIST_DIR}/shadow_app.cpp)

target_compile_features(kam-shadow-app PRIVATE cxx_std_17)
target_compile_options(kam-shadow-app PRIVATE -Wall -Wextra)

target_link_libraries(kam-shadow-app PRIVATE
    kam_gles_app
    PkgConfig::EGL
    PkgConfig::GLES
    X11::X11
    PNG::PNG
    Threads::Threads
    ${CMAKE_DL_LIBS})

# tests/e2e/run.sh expects the binary at the top of the build directory.
set_target_properties(kam-shadow-app PROPERTIES
    RUNTIME_OUTPUT_DIRECTORY "${CMAKE_BINARY_DIR}")
