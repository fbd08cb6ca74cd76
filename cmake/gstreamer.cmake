# GStreamer, which the media programs call. Its headers and libraries are found by their paths: with
# pkg-config, a build for another processor would need the development files of all that GStreamer
# itself stands on.

set(parts GLIB_LIBRARY GOBJECT_LIBRARY GSTREAMER_LIBRARY GSTREAMER_APP_LIBRARY RTSP_SERVER_LIBRARY
    GLIB_INCLUDE_DIR
    GLIB_CONFIG_INCLUDE_DIR GSTREAMER_INCLUDE_DIR GSTREAMER_APP_INCLUDE_DIR RTSP_SERVER_INCLUDE_DIR)
find_library(GLIB_LIBRARY glib-2.0)
find_library(GOBJECT_LIBRARY gobject-2.0)
find_library(GSTREAMER_LIBRARY gstreamer-1.0)
find_library(GSTREAMER_APP_LIBRARY gstapp-1.0)
find_library(RTSP_SERVER_LIBRARY gstrtspserver-1.0)
find_path(GLIB_INCLUDE_DIR glib.h PATH_SUFFIXES glib-2.0)
find_path(GLIB_CONFIG_INCLUDE_DIR glibconfig.h
    PATHS /usr/lib/${CMAKE_LIBRARY_ARCHITECTURE} /usr/lib64 /usr/lib
    PATH_SUFFIXES glib-2.0/include)
find_path(GSTREAMER_INCLUDE_DIR gst/gst.h PATH_SUFFIXES gstreamer-1.0)
find_path(GSTREAMER_APP_INCLUDE_DIR gst/app/gstappsink.h PATH_SUFFIXES gstreamer-1.0)
find_path(RTSP_SERVER_INCLUDE_DIR gst/rtsp-server/rtsp-server.h PATH_SUFFIXES gstreamer-1.0)
mark_as_advanced(${parts})

set(GSTREAMER_FOUND TRUE)
foreach(part ${parts})
    if(NOT ${part})
        set(GSTREAMER_FOUND FALSE)
    endif()
endforeach()

if(GSTREAMER_FOUND AND NOT TARGET gstreamer)
    add_library(gstreamer INTERFACE)
    target_include_directories(gstreamer SYSTEM INTERFACE ${GSTREAMER_INCLUDE_DIR}
        ${GSTREAMER_APP_INCLUDE_DIR} ${GLIB_INCLUDE_DIR} ${GLIB_CONFIG_INCLUDE_DIR})
    target_link_libraries(gstreamer INTERFACE ${RTSP_SERVER_LIBRARY} ${GSTREAMER_APP_LIBRARY} ${GSTREAMER_LIBRARY}
        ${GOBJECT_LIBRARY} ${GLIB_LIBRARY})
    # What these libraries stand on is found where they run.
    target_link_options(gstreamer INTERFACE -Wl,--unresolved-symbols=ignore-in-shared-libs)
endif()
