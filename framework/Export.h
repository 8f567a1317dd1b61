// libzxblkvhd.so is built with hidden visibility; these names are its interface.
#pragma once
#define ZXBLK_EXPORT __attribute__((visibility("default")))
