/// Marks what libbackup2 shows; everything else in it is hidden.
#pragma once

#define BACKUP2_EXPORT __attribute__((visibility("default")))
