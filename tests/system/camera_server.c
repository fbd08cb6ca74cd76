/* A network camera: serves rtsp://ADDRESS:8554/live, whose pipeline is the second argument. */
#include <gst/rtsp-server/rtsp-server.h>

int main(int argc, char **argv) {
    gst_init(&argc, &argv);
    GstRTSPServer *server = gst_rtsp_server_new();
    gst_rtsp_server_set_address(server, argv[1]);
    GstRTSPMediaFactory *factory = gst_rtsp_media_factory_new();
    gst_rtsp_media_factory_set_launch(factory, argv[2]);
    GstRTSPMountPoints *places = gst_rtsp_server_get_mount_points(server);
    gst_rtsp_mount_points_add_factory(places, "/live", factory);
    if (gst_rtsp_server_attach(server, NULL) == 0) {
        return 1;
    }
    g_main_loop_run(g_main_loop_new(NULL, FALSE));
    return 0;
}
