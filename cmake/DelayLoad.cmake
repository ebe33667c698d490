# Windows resolves a program's imports before any of its code runs, and it looks for those that
# are not among its "known DLLs" in the program's own folder first: a library of that name
# planted there (a download folder, the installer's temporary folder) would be loaded. Imported
# through delay-load libraries instead, each is loaded at its first call, by which time the
# program has restricted the search to the system folder (SetDefaultDllDirectories in src/os).
#
#   corvalen_delay_load(TARGET dll...)   dll without ".dll", as the import table names it
#
# Each delay-load library holds the functions of its DLL that the static Qt calls, and is linked
# whole, before the toolchain's import libraries: their symbols are then already defined.
# mingw-w64's runtime provides the loader helper. Made at configure time.
find_program(CORVALEN_DLLTOOL NAMES x86_64-w64-mingw32-dlltool REQUIRED)
find_program(CORVALEN_NM NAMES x86_64-w64-mingw32-nm REQUIRED)

function(corvalen_delay_load target)
    set(dir ${CMAKE_CURRENT_BINARY_DIR}/delayload-${target})
    file(MAKE_DIRECTORY ${dir})
    # What Qt's libraries and plugins import.
    file(GLOB_RECURSE qt_libraries ${CORVALEN_QT_WINDOWS}/lib/*.a ${CORVALEN_QT_WINDOWS}/plugins/*.a)
    execute_process(COMMAND ${CORVALEN_NM} -u ${qt_libraries} OUTPUT_VARIABLE used
                    COMMAND_ERROR_IS_FATAL ANY)
    set(libraries)
    foreach(dll IN LISTS ARGN)
        string(TOLOWER ${dll} name)
        find_library(import_${name} NAMES lib${name}.a REQUIRED NO_CACHE)
        execute_process(COMMAND ${CORVALEN_NM} ${import_${name}} OUTPUT_VARIABLE symbols
                        COMMAND_ERROR_IS_FATAL ANY)
        string(REGEX MATCHALL " I __imp_[A-Za-z0-9_]+" exported "${symbols}")
        list(TRANSFORM exported REPLACE " I __imp_" "")
        list(REMOVE_DUPLICATES exported)
        set(functions)
        foreach(function IN LISTS exported)
            if(used MATCHES " U (__imp_)?${function}\n")
                list(APPEND functions ${function})
            endif()
        endforeach()
        list(SORT functions)
        string(JOIN "\n" exports ${functions})
        file(WRITE ${dir}/${name}.def "LIBRARY ${dll}.dll\nEXPORTS\n${exports}\n")
        execute_process(COMMAND ${CORVALEN_DLLTOOL} --input-def ${name}.def --dllname ${dll}.dll
                                --output-delaylib lib${name}.a
                        WORKING_DIRECTORY ${dir} COMMAND_ERROR_IS_FATAL ANY)
        list(APPEND libraries ${dir}/lib${name}.a)
    endforeach()
    target_link_libraries(${target} PRIVATE -Wl,--whole-archive ${libraries} -Wl,--no-whole-archive)
endfunction()
