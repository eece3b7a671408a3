// The USB driver interface: URBs plus the size helpers client drivers use.
#pragma once
#include "usb.h"

#define GET_USBD_INTERFACE_SIZE(numEndpoints)              \
    (sizeof(USBD_INTERFACE_INFORMATION) +                  \
     (sizeof(USBD_PIPE_INFORMATION) * (numEndpoints)) -    \
     sizeof(USBD_PIPE_INFORMATION))

#define GET_SELECT_CONFIGURATION_REQUEST_SIZE(totalInterfaces, totalPipes)          \
    (sizeof(struct _URB_SELECT_CONFIGURATION) +                                    \
     ((totalInterfaces - 1) * sizeof(USBD_INTERFACE_INFORMATION)) +                \
     ((totalPipes - totalInterfaces) * sizeof(USBD_PIPE_INFORMATION)))

#define GET_SELECT_INTERFACE_REQUEST_SIZE(totalPipes) \
    (sizeof(struct _URB_SELECT_INTERFACE) + (((totalPipes) - 1) * sizeof(USBD_PIPE_INFORMATION)))
