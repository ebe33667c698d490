# What every Windows program and library we ship carries: a version resource with the project's
# one version, and where asked the product icon and an application manifest.
#
#   corvalen_windows_resources(TARGET "File description" [ICON] [MANIFEST file.manifest])
#
# The icon, build/corvalen.ico, is made from resources/tools/logo.svg (librsvg2-bin, icoutils):
# 16 to 32 px as bitmaps, 48 to 256 px as PNG (smaller; Windows reads them since Vista).
set(CORVALEN_COMPANY "Corvalen")
set(CORVALEN_COPYRIGHT "Copyright (C) Corvalen. All rights reserved.")
set(CORVALEN_ICON ${PROJECT_BINARY_DIR}/corvalen.ico)

set(logo ${PROJECT_SOURCE_DIR}/resources/tools/logo.svg)
set(icon_commands)
set(icon_pngs)
foreach(size 16 24 32 48 64 128 256)
    list(APPEND icon_commands COMMAND rsvg-convert -w ${size} -h ${size} -o icon/${size}.png ${logo})
    if(size LESS 48)
        list(APPEND icon_pngs icon/${size}.png)
    else()
        list(APPEND icon_pngs --raw=icon/${size}.png)
    endif()
endforeach()
add_custom_command(
    OUTPUT ${CORVALEN_ICON}
    COMMAND ${CMAKE_COMMAND} -E make_directory icon
    ${icon_commands}
    COMMAND icotool -c -o ${CORVALEN_ICON} ${icon_pngs}
    DEPENDS ${logo}
    WORKING_DIRECTORY ${PROJECT_BINARY_DIR}
    COMMENT "Making the product icon"
    VERBATIM)
add_custom_target(corvalen_icon DEPENDS ${CORVALEN_ICON})

function(corvalen_windows_resources target description)
    cmake_parse_arguments(PARSE_ARGV 2 arg "ICON" "MANIFEST" "")
    get_target_property(type ${target} TYPE)
    get_target_property(name ${target} OUTPUT_NAME)
    if(NOT name)
        set(name ${target})
    endif()
    set(CORVALEN_RC_NAME ${name})
    set(CORVALEN_RC_DESCRIPTION "${description}")
    if(type STREQUAL "SHARED_LIBRARY")
        set(CORVALEN_RC_FILE ${name}.dll)
        set(CORVALEN_RC_TYPE VFT_DLL)
    else()
        set(CORVALEN_RC_FILE ${name}.exe)
        set(CORVALEN_RC_TYPE VFT_APP)
    endif()
    set(CORVALEN_RC_ICON "")
    if(arg_ICON)
        set(CORVALEN_RC_ICON "1 ICON \"${CORVALEN_ICON}\"")
        add_dependencies(${target} corvalen_icon)
    endif()
    set(CORVALEN_RC_MANIFEST "")
    if(arg_MANIFEST)
        configure_file(${arg_MANIFEST} ${CMAKE_CURRENT_BINARY_DIR}/${target}.manifest @ONLY)
        set(CORVALEN_RC_MANIFEST
            "1 24 \"${CMAKE_CURRENT_BINARY_DIR}/${target}.manifest\" // RT_MANIFEST")
    endif()
    configure_file(${PROJECT_SOURCE_DIR}/cmake/version.rc.in
                   ${CMAKE_CURRENT_BINARY_DIR}/${target}.rc @ONLY)
    target_sources(${target} PRIVATE ${CMAKE_CURRENT_BINARY_DIR}/${target}.rc)
endfunction()

# The same facts for the installer script (scripts/build-installer.sh includes it).
configure_file(${PROJECT_SOURCE_DIR}/installer/product.nsh.in ${PROJECT_BINARY_DIR}/product.nsh
               @ONLY)
