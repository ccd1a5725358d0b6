#ifndef TESSEL_EXPORT_H
#define TESSEL_EXPORT_H
#define TESSEL_EXPORT __attribute__((visibility("default")))
#endif
