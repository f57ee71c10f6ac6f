# Qt's config files create the targets of its tools only when they do not
# exist yet, each pointing into the sysroot, where they are ARM programs (or
# missing). Defining them first makes a cross build run the host's qmake,
# moc, rcc and D-Bus generators of the same Qt version.
set(LARKD_HOST_QT_BINDIR /usr/lib/qt5/bin CACHE PATH "Host directory of Qt 5's code generators")
foreach(tool qmake moc rcc qdbusxml2cpp qdbuscpp2xml)
    if(NOT TARGET Qt5::${tool})
        if(NOT EXISTS "${LARKD_HOST_QT_BINDIR}/${tool}")
            message(FATAL_ERROR "host Qt tool ${LARKD_HOST_QT_BINDIR}/${tool} is missing (qtbase5-dev-tools)")
        endif()
        add_executable(Qt5::${tool} IMPORTED GLOBAL)
        set_target_properties(Qt5::${tool} PROPERTIES IMPORTED_LOCATION "${LARKD_HOST_QT_BINDIR}/${tool}")
    endif()
endforeach()
