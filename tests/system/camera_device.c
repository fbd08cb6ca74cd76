/* A plugin with an element "v4l2src": a camera that gives H.264, 160x120, while the device's file is
 * there. */
#include <gst/gst.h>
#include <unistd.h>

typedef struct {
    GstBin bin;
    gchar *device;
} CameraDevice;
typedef GstBinClass CameraDeviceClass;

G_DEFINE_TYPE(CameraDevice, camera_device, GST_TYPE_BIN)

static void set_property(GObject *object, guint number, const GValue *value, GParamSpec *spec) {
    (void)number;
    (void)spec;
    ((CameraDevice *)object)->device = g_value_dup_string(value);
}

static GstStateChangeReturn change_state(GstElement *element, GstStateChange change) {
    const gchar *device = ((CameraDevice *)element)->device;
    if (change == GST_STATE_CHANGE_NULL_TO_READY && access(device, F_OK) != 0) {
        GST_ELEMENT_ERROR(element, RESOURCE, NOT_FOUND, ("there is no camera"), (NULL));
        return GST_STATE_CHANGE_FAILURE;
    }
    return GST_ELEMENT_CLASS(camera_device_parent_class)->change_state(element, change);
}

static void camera_device_class_init(CameraDeviceClass *kind) {
    G_OBJECT_CLASS(kind)->set_property = set_property;
    g_object_class_install_property(
        G_OBJECT_CLASS(kind), 1, g_param_spec_string("device", "", "", NULL, G_PARAM_WRITABLE));
    GST_ELEMENT_CLASS(kind)->change_state = change_state;
    gst_element_class_add_pad_template(
        GST_ELEMENT_CLASS(kind),
        gst_pad_template_new("src", GST_PAD_SRC, GST_PAD_ALWAYS, GST_CAPS_ANY));
    gst_element_class_set_static_metadata(GST_ELEMENT_CLASS(kind), "camera", "Source", "", "");
}

static void camera_device_init(CameraDevice *camera) {
    GstElement *inner = gst_parse_bin_from_description(
        "videotestsrc is-live=true ! video/x-raw,format=I420,width=160,height=120,framerate=30/1"
        " ! x264enc name=encoder tune=zerolatency speed-preset=ultrafast key-int-max=30",
        TRUE, NULL);
    gst_bin_add(GST_BIN(camera), inner);
    GstPad *pad = gst_element_get_static_pad(inner, "src");
    gst_element_add_pad(GST_ELEMENT(camera), gst_ghost_pad_new("src", pad));
    gst_object_unref(pad);
}

static gboolean init(GstPlugin *plugin) {
    return gst_element_register(plugin, "v4l2src", GST_RANK_NONE, camera_device_get_type());
}

#define PACKAGE "camera_device"
GST_PLUGIN_DEFINE(GST_VERSION_MAJOR, GST_VERSION_MINOR, camera_device, "A camera for tests", init,
                  "1", "Proprietary", PACKAGE, "https://localhost")
