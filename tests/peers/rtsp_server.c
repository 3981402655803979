/* A real RTSP server for the live-stream tests: GStreamer's RTSP server
 * serving one launch line at rtsp://127.0.0.1:PORT/stream over TCP only.
 * Prints the bound port on the first line of standard output, then serves
 * until killed (or for 120 s at most).
 *   korvalen-test-rtsp-server "( videotestsrc ... ! rtph264pay name=pay0 pt=96 )" */
#include <gst/gst.h>
#include <gst/rtsp-server/rtsp-server.h>
#include <stdio.h>

static gboolean Quit(gpointer loop)
{
    g_main_loop_quit((GMainLoop*)loop);
    return G_SOURCE_REMOVE;
}

int main(int argc, char** argv)
{
    gst_init(&argc, &argv);
    if (argc < 2) {
        fprintf(stderr, "usage: %s LAUNCH-LINE\n", argv[0]);
        return 2;
    }
    GMainLoop* loop = g_main_loop_new(NULL, FALSE);
    GstRTSPServer* server = gst_rtsp_server_new();
    gst_rtsp_server_set_address(server, "127.0.0.1");
    gst_rtsp_server_set_service(server, "0");
    GstRTSPMountPoints* mounts = gst_rtsp_server_get_mount_points(server);
    GstRTSPMediaFactory* factory = gst_rtsp_media_factory_new();
    gst_rtsp_media_factory_set_launch(factory, argv[1]);
    gst_rtsp_media_factory_set_protocols(factory, GST_RTSP_LOWER_TRANS_TCP);
    gst_rtsp_mount_points_add_factory(mounts, "/stream", factory);
    g_object_unref(mounts);
    if (gst_rtsp_server_attach(server, NULL) == 0) {
        fprintf(stderr, "cannot attach the server\n");
        return 1;
    }
    printf("%d\n", gst_rtsp_server_get_bound_port(server));
    fflush(stdout);
    g_timeout_add_seconds(120, Quit, loop);
    g_main_loop_run(loop);
    g_object_unref(server);
    g_main_loop_unref(loop);
    return 0;
}
