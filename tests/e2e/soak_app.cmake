# kam-soak-app (thousands of frames with offload switched off and on, object
# churn, per-frame read-backs, memory/thread/EGL-record checks) and
# kam-lifecycle-app (context and thread lifecycle faults under offload), for
# the soak and lifecycle end-to-end checks. The root project provides the
# imported targets.

foreach(app soak lifecycle)
  add_executable(kam-${app}-app ${CMAKE_CURRENT_LIST_DIR}/${app}_app.cpp)
  target_compile_features(kam-${app}-app PRIVATE cxx_std_17)
  target_compile_options(kam-${app}-app PRIVATE -Wall -Wextra)
  target_link_libraries(kam-${app}-app PRIVATE
      kam_gles_app
      PkgConfig::EGL
      PkgConfig::GLES
      X11::X11
      Threads::Threads
      ${CMAKE_DL_LIBS})
  # tests/e2e/run.sh expects the binaries at the top of the build directory.
  set_target_properties(kam-${app}-app PROPERTIES RUNTIME_OUTPUT_DIRECTORY "${CMAKE_BINARY_DIR}")
endforeach()
# The lifecycle program takes the layer's log lines: its __android_log_print
# must be visible to the shared libraries.
set_target_properties(kam-lifecycle-app PROPERTIES ENABLE_EXPORTS ON)
