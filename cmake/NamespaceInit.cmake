# The tiny first process of a child's PID namespace: a program without any runtime library,
# built here and carried inside the process runtime as bytes, so that the host needs no file
# beside itself to use it. Where no such program exists for the processor, the image is empty
# and children run in a process group only.
set(QUAY_INIT_IMAGE_CPP ${CMAKE_BINARY_DIR}/generated/namespace_init_image.cpp)
set(QUAY_INIT_SOURCE ${CMAKE_SOURCE_DIR}/src/process_init/namespace_init_${CMAKE_SYSTEM_PROCESSOR}.cpp)
if(NOT WIN32 AND EXISTS ${QUAY_INIT_SOURCE})
  add_executable(quay_namespace_init ${QUAY_INIT_SOURCE})
  # None of the project's flags fit a program without a C library: no sanitizers, no stack
  # protector, no position independence, a fixed entry point.
  set_target_properties(quay_namespace_init PROPERTIES COMPILE_OPTIONS "" LINK_OPTIONS ""
                        POSITION_INDEPENDENT_CODE OFF)
  target_compile_options(quay_namespace_init PRIVATE -O2 -ffreestanding -fno-exceptions -fno-rtti
                         -fno-stack-protector -fno-asynchronous-unwind-tables -fno-pie -Wall -Wextra -Wpedantic)
  target_link_options(quay_namespace_init PRIVATE -static -nostdlib -no-pie -Wl,--build-id=none)
  add_custom_command(
    OUTPUT ${QUAY_INIT_IMAGE_CPP}
    COMMAND ${CMAKE_COMMAND} -DINPUT=$<TARGET_FILE:quay_namespace_init> -DOUTPUT=${QUAY_INIT_IMAGE_CPP}
            -DSYMBOL=kNamespaceInitImage -P ${CMAKE_SOURCE_DIR}/cmake/EmbedBinary.cmake
    DEPENDS quay_namespace_init ${CMAKE_SOURCE_DIR}/cmake/EmbedBinary.cmake
    COMMENT "Embedding the namespace init program")
else()
  add_custom_command(
    OUTPUT ${QUAY_INIT_IMAGE_CPP}
    COMMAND ${CMAKE_COMMAND} -DOUTPUT=${QUAY_INIT_IMAGE_CPP} -DSYMBOL=kNamespaceInitImage
            -P ${CMAKE_SOURCE_DIR}/cmake/EmbedBinary.cmake
    DEPENDS ${CMAKE_SOURCE_DIR}/cmake/EmbedBinary.cmake)
endif()
target_sources(brimo_process_runtime PRIVATE ${QUAY_INIT_IMAGE_CPP})
set_source_files_properties(${QUAY_INIT_IMAGE_CPP} PROPERTIES SKIP_PRECOMPILE_HEADERS ON)
