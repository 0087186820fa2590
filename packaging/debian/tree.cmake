# Run by CPack on what it has installed, component by component, before it makes packages of that:
# what Debian wants to have otherwise than an installation below any other prefix.
set(here ${CMAKE_CURRENT_LIST_DIR})

function(compress)
    execute_process(COMMAND gzip -9n ${ARGN} COMMAND_ERROR_IS_FATAL ANY)
endfunction()

# Documents are by package, and licence and changes of each have prescribed names.
function(arrange_documents share package)
    set(documents ${share}/doc/${package})
    if(EXISTS ${share}/doc/tarvo)
        file(RENAME ${share}/doc/tarvo ${documents})
    endif()
    file(REMOVE ${documents}/LICENSE)
    file(COPY ${here}/copyright DESTINATION ${documents}
        FILE_PERMISSIONS OWNER_READ OWNER_WRITE GROUP_READ WORLD_READ)
    file(COPY_FILE ${here}/changelog ${documents}/changelog.Debian)
    file(COPY_FILE ${here}/../../CHANGELOG.md ${documents}/changelog)
    compress(${documents}/changelog.Debian ${documents}/changelog)
endfunction()

# Some pages are links to the one that describes several calls.
function(compress_pages share)
    file(GLOB pages ${share}/man/man*/*)
    foreach(page IN LISTS pages)
        if(IS_SYMLINK ${page})
            file(READ_SYMLINK ${page} meant)
            file(REMOVE ${page})
            file(CREATE_LINK ${meant}.gz ${page}.gz SYMBOLIC)
        else()
            compress(${page})
        endif()
    endforeach()
endfunction()

# Debian's zsh does not look into the folder that zsh itself has for this.
function(arrange_zsh zsh)
    if(EXISTS ${zsh}/site-functions)
        file(RENAME ${zsh}/site-functions ${zsh}/vendor-completions)
    endif()
endfunction()

# Files and folders were made under the umask of whoever calls.
function(set_modes folder)
    execute_process(COMMAND chmod -R u=rwX,go=rX ${folder} COMMAND_ERROR_IS_FATAL ANY)
endfunction()

# Configuration is beside the prefix, not below it.
function(arrange_configuration root)
    if(EXISTS ${root}/usr/etc)
        file(RENAME ${root}/usr/etc ${root}/etc)
        set_modes(${root}/etc)
    endif()
endfunction()

foreach(component IN LISTS CPACK_COMPONENTS_ALL)
    string(TOUPPER ${component} key)
    set(root ${CPACK_TEMPORARY_DIRECTORY}/${component})
    set(share ${root}/usr/share)
    arrange_documents(${share} ${CPACK_DEBIAN_${key}_PACKAGE_NAME})
    compress_pages(${share})
    arrange_zsh(${share}/zsh)
    arrange_configuration(${root})
    set_modes(${root}/usr)
endforeach()
