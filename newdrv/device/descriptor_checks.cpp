// Soundness of a configuration descriptor as the camera returned it. The
// parsing routines walk it by bLength and step over endpoint descriptors
// without bounds of their own, so everything they will touch is checked here
// before they run.
#include "ornix.h"

// Shortest records the parsers read in full (the platform structures may be
// padded, the bus records are not).
#define ORNIX_CONFIGURATION_HEADER_LENGTH 9
#define ORNIX_INTERFACE_DESCRIPTOR_LENGTH 9
#define ORNIX_ENDPOINT_DESCRIPTOR_LENGTH 7
#define ORNIX_COMMON_DESCRIPTOR_LENGTH 2

// IRQL: any.
BOOLEAN OrnixConfigurationDescriptorIsSound(PUSB_CONFIGURATION_DESCRIPTOR Descriptor,
                                            ULONG Returned) {
    if (Descriptor == NULL || Returned < ORNIX_CONFIGURATION_HEADER_LENGTH) {
        return FALSE;
    }
    ULONG total = Descriptor->wTotalLength;
    if (total < ORNIX_CONFIGURATION_HEADER_LENGTH || total > Returned) {
        return FALSE;
    }

    // Descriptors that an interface's endpoint walk will still step onto.
    ULONG endpointsDue = 0;
    PUCHAR bytes = (PUCHAR)Descriptor;
    ULONG offset = 0;
    while (offset < total) {
        if (total - offset < ORNIX_COMMON_DESCRIPTOR_LENGTH) {
            return FALSE;
        }
        PUSB_COMMON_DESCRIPTOR common = (PUSB_COMMON_DESCRIPTOR)(bytes + offset);
        ULONG length = common->bLength;
        if (length < ORNIX_COMMON_DESCRIPTOR_LENGTH || length > total - offset) {
            return FALSE;
        }
        if (endpointsDue > 0) {
            if (length < ORNIX_ENDPOINT_DESCRIPTOR_LENGTH) {
                return FALSE;
            }
            endpointsDue--;
        }
        if (common->bDescriptorType == USB_INTERFACE_DESCRIPTOR_TYPE) {
            if (length < ORNIX_INTERFACE_DESCRIPTOR_LENGTH) {
                return FALSE;
            }
            ULONG endpoints = ((PUSB_INTERFACE_DESCRIPTOR)common)->bNumEndpoints;
            if (endpoints > endpointsDue) {
                endpointsDue = endpoints;
            }
        }
        offset += length;
    }
    // An interface announcing more endpoints than follow it.
    return endpointsDue == 0;
}
