# Compile and link options for every target, on both compilers.
add_library(project_options INTERFACE)
target_compile_features(project_options INTERFACE cxx_std_20)
set(CMAKE_CXX_EXTENSIONS OFF)
target_compile_definitions(project_options INTERFACE UNICODE _UNICODE WIN32_LEAN_AND_MEAN NOMINMAX
                                                     _WIN32_WINNT=0x0A00)
target_include_directories(project_options INTERFACE ${PROJECT_SOURCE_DIR})

if(MSVC)
  # Static runtime: the library needs no redistributable beside it.
  set(CMAKE_MSVC_RUNTIME_LIBRARY "MultiThreaded$<$<CONFIG:Debug>:Debug>")
  target_compile_options(project_options INTERFACE /W4 /WX /permissive- /utf-8 /Zc:__cplusplus /guard:cf)
  target_compile_definitions(project_options INTERFACE _CRT_SECURE_NO_WARNINGS)
  # /DYNAMICBASE, /HIGHENTROPYVA and /NXCOMPAT are the linker's defaults, spelled out.
  target_link_options(project_options INTERFACE /DYNAMICBASE /HIGHENTROPYVA /NXCOMPAT /guard:cf /CETCOMPAT)
else()
  target_compile_options(
    project_options
    INTERFACE -Wall
              -Wextra
              -Wpedantic
              -Werror
              -Wcast-align
              -Wcast-qual
              -Wconversion
              -Wduplicated-branches
              -Wduplicated-cond
              -Wextra-semi
              -Wformat=2
              -Wlogical-op
              -Wmissing-declarations
              -Wnon-virtual-dtor
              -Wnull-dereference
              -Wold-style-cast
              -Woverloaded-virtual
              -Wredundant-decls
              -Wshadow
              -Wsign-conversion
              -Wsuggest-override
              -Wundef
              -Wunused
              -fstack-protector-strong
              # No folder of this machine in the output; of these two the last one that matches counts.
              -ffile-prefix-map=${PROJECT_SOURCE_DIR}=.
              -fdebug-prefix-map=${PROJECT_BINARY_DIR}=.)
  # Static runtime here too, and reproducible output.
  target_link_options(project_options INTERFACE -static -fstack-protector-strong -Wl,--dynamicbase,--high-entropy-va,--nxcompat
                      -Wl,--no-insert-timestamp)
endif()

option(CUSTOM_ACTIONS_COVERAGE "Instrument the library for line coverage (GCC only)" OFF)

# Extra options for what is shipped: small, because the installer unpacks and loads it for each action.
add_library(library_options INTERFACE)
if(MSVC)
  # No dead code, no incremental linking, reproducible output; imported libraries load from the system directory only.
  set(link_options /INCREMENTAL:NO /OPT:REF /OPT:ICF /Brepro /DEPENDENTLOADFLAG:0x800)
else()
  target_compile_options(library_options INTERFACE $<$<CONFIG:Release,RelWithDebInfo>:-Os>)
  # Leaves out the runtime's name demangler: nobody reads what an uncaught exception prints to standard error.
  set(link_options -Wl,--defsym=_ZN9__gnu_cxx27__verbose_terminate_handlerEv=abort)
endif()
# Shared libraries only: CMake would pass the link options of a static library on to the test programs.
target_link_options(library_options INTERFACE "$<$<STREQUAL:$<TARGET_PROPERTY:TYPE>,SHARED_LIBRARY>:${link_options}>")

# Moves a library's symbols into LIBRARY.dll.debug and links to it, so that a debugger finds them.
function(split_symbols library)
  if(MSVC OR CUSTOM_ACTIONS_COVERAGE)
    return()
  endif()
  # It writes the time into both files, and the library has the symbol file's checksum.
  set(reproducible_objcopy ${CMAKE_COMMAND} -E env SOURCE_DATE_EPOCH=0 ${CMAKE_OBJCOPY})
  add_custom_command(
    TARGET ${library}
    POST_BUILD
    COMMAND ${reproducible_objcopy} --only-keep-debug ${library}.dll ${library}.dll.debug
    COMMAND ${reproducible_objcopy} --strip-all --add-gnu-debuglink=${library}.dll.debug ${library}.dll
    WORKING_DIRECTORY $<TARGET_FILE_DIR:${library}>
    VERBATIM)
endfunction()
