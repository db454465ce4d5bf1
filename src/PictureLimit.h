#pragma once

#include <gst/gst.h>

namespace media_backend {

// Makes the pipeline's decodebin "simu_file_decode" refuse pictures of more than 8192 x 8192 pixels
// with an error on the bus, before a decoder allocates them.
void refuseHugePictures(GstElement* pipeline);

}  // namespace media_backend
