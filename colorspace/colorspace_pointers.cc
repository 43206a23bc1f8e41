// The application's function-pointer variables: null at load, and the
// library never reads or writes them.
#include "colorspace.h"

to_yv12_fn rgb555_to_yv12;
to_yv12_fn rgb565_to_yv12;
to_yv12_fn rgb24_to_yv12;
to_yv12_fn rgb32_to_yv12;
to_yv12_fn yuv_to_yv12;
to_yv12_fn yuyv_to_yv12;
to_yv12_fn uyvy_to_yv12;
from_yv12_fn yv12_to_rgb555;
from_yv12_fn yv12_to_rgb565;
from_yv12_fn yv12_to_rgb24;
from_yv12_fn yv12_to_rgb32;
from_yv12_fn yv12_to_yuv;
from_yv12_fn yv12_to_yuyv;
from_yv12_fn yv12_to_uyvy;
