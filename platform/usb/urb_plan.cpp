// Validation of incoming URBs, and the plan of what each valid one does: the
// queue that serves it, the pipe it acts on and its transactions on the bus.
#include <cstddef>

#include "usb/stack_internals.h"
#include "usb/transfer_flags.h"

namespace usbsim {

namespace {

constexpr uint8_t kGetDescriptor = 6;
constexpr uint8_t kClearFeature = 1;
constexpr uint8_t kSetConfiguration = 9;
constexpr uint8_t kSetInterface = 11;
constexpr uint8_t kRequestTypeVendorDevice = 0x40;
constexpr uint8_t kRequestTypeToEndpoint = 0x02;
constexpr uint8_t kRequestTypeToInterface = 0x01;
constexpr uint8_t kDirectionIn = 0x80;
constexpr ULONG kLargestControlData = 0xFFFF;  // wLength is 16 bits

// Offsets inside a URB, where the variable-length parts begin.
constexpr size_t kSelectConfigurationFixedSize = offsetof(_URB_SELECT_CONFIGURATION, Interface);
constexpr size_t kSelectInterfaceFixedSize = offsetof(_URB_SELECT_INTERFACE, Interface);
constexpr size_t kInterfaceInformationFixedSize = offsetof(USBD_INTERFACE_INFORMATION, Pipes);

bool Fits(const URB& urb, size_t size) {
    return urb.UrbHeader.Length >= size;
}

USBD_INTERFACE_INFORMATION& InterfaceAt(PURB urb, size_t offset) {
    return *reinterpret_cast<USBD_INTERFACE_INFORMATION*>(reinterpret_cast<uint8_t*>(urb) + offset);
}

// The client's data stage: its buffer, else the MDL's system address.
USBD_STATUS DataStage(PVOID buffer, PMDL mdl, ULONG length, std::span<uint8_t>& data) {
    data = {};
    if (length == 0) {
        return USBD_STATUS_SUCCESS;
    }
    if (buffer != nullptr) {
        data = {static_cast<uint8_t*>(buffer), length};
        return USBD_STATUS_SUCCESS;
    }
    if (mdl == nullptr || MmGetMdlByteCount(mdl) < length) {
        return USBD_STATUS_INVALID_PARAMETER;
    }
    auto* address = static_cast<uint8_t*>(MmGetSystemAddressForMdl(mdl));
    if (address == nullptr) {
        address = static_cast<uint8_t*>(mdl->StartVa) + mdl->ByteOffset;
    }
    data = {address, length};
    return USBD_STATUS_SUCCESS;
}

BusStep ControlStep(const SetupPacket& setup, std::span<uint8_t> data = {}) {
    BusStep step;
    step.transaction = {.type = UsbmonTransferType::Control,
                        .endpoint = static_cast<uint8_t>(setup.DeviceToHost() ? kDirectionIn : 0),
                        .setup = setup};
    step.data = data;
    step.carriesResult = true;
    return step;
}

BusStep SetInterfaceStep(uint8_t interfaceNumber, uint8_t alternateSetting) {
    return ControlStep(
        {kRequestTypeToInterface, kSetInterface, alternateSetting, interfaceNumber, 0});
}

}  // namespace

std::shared_ptr<Pipe> UsbStack::Impl::FindPipeLocked(USBD_PIPE_HANDLE handle) const {
    auto it = pipes.find(handle);
    return it == pipes.end() ? nullptr : it->second;
}

USBD_STATUS UsbStack::Impl::PlanLocked(Request& r) {
    switch (r.kind) {
        case RequestKind::SelectConfiguration:
            return PlanSelectConfigurationLocked(r);
        case RequestKind::SelectInterface:
            return PlanSelectInterfaceLocked(r);
        case RequestKind::GetDescriptor:
        case RequestKind::VendorDevice:
        case RequestKind::ClearEndpointFeature:
            return PlanControlLocked(r);
        case RequestKind::ResetPipe:
        case RequestKind::AbortPipe:
            return PlanPipeRequestLocked(r);
        case RequestKind::BulkOrInterrupt:
            return PlanTransferLocked(r);
        default:
            return USBD_STATUS_INVALID_URB_FUNCTION;
    }
}

USBD_STATUS UsbStack::Impl::PlanSelectConfigurationLocked(Request& r) {
    const _URB_SELECT_CONFIGURATION& u = r.urb->UrbSelectConfiguration;
    if (!Fits(*r.urb, kSelectConfigurationFixedSize)) {
        return USBD_STATUS_INVALID_PARAMETER;
    }
    r.queue = controlPipe;
    if (u.ConfigurationDescriptor == nullptr) {  // unconfigure
        r.steps.push_back(ControlStep({0, kSetConfiguration, 0, 0, 0}));
        return USBD_STATUS_SUCCESS;
    }
    const USB_CONFIGURATION_DESCRIPTOR& d = *u.ConfigurationDescriptor;
    if (d.bLength < sizeof(USB_CONFIGURATION_DESCRIPTOR) ||
        d.bDescriptorType != USB_CONFIGURATION_DESCRIPTOR_TYPE || d.wTotalLength < d.bLength) {
        return USBD_STATUS_INAVLID_CONFIGURATION_DESCRIPTOR;
    }
    r.configuration = ParseConfigurationDescriptor(
        {reinterpret_cast<const uint8_t*>(&d), static_cast<size_t>(d.wTotalLength)});
    if (!r.configuration) {
        return USBD_STATUS_INAVLID_CONFIGURATION_DESCRIPTOR;
    }

    r.steps.push_back(
        ControlStep({0, kSetConfiguration, r.configuration->configurationValue, 0, 0}));
    // One interface information per interface, each of its own Length.
    size_t offset = kSelectConfigurationFixedSize;
    for (uint8_t i = 0; i < r.configuration->numInterfaces; ++i) {
        if (!Fits(*r.urb, offset + kInterfaceInformationFixedSize)) {
            return USBD_STATUS_INVALID_PARAMETER;
        }
        const USBD_INTERFACE_INFORMATION& info = InterfaceAt(r.urb, offset);
        const AlternateSettingDescription* setting =
            r.configuration->Find(info.InterfaceNumber, info.AlternateSetting);
        if (setting == nullptr) {
            return USBD_STATUS_INTERFACE_NOT_FOUND;
        }
        // NumberOfPipes is filled in by the stack; the room for the pipes
        // must match what the descriptor announces.
        if (info.Length != GET_USBD_INTERFACE_SIZE(setting->endpoints.size()) ||
            !Fits(*r.urb, offset + info.Length)) {
            return USBD_STATUS_INVALID_PARAMETER;
        }
        r.interfaceOffsets.push_back(offset);
        if (info.AlternateSetting != 0) {
            r.steps.push_back(SetInterfaceStep(info.InterfaceNumber, info.AlternateSetting));
        }
        offset += info.Length;
    }
    return USBD_STATUS_SUCCESS;
}

USBD_STATUS UsbStack::Impl::PlanSelectInterfaceLocked(Request& r) {
    const _URB_SELECT_INTERFACE& u = r.urb->UrbSelectInterface;
    if (!Fits(*r.urb, kSelectInterfaceFixedSize + kInterfaceInformationFixedSize)) {
        return USBD_STATUS_INVALID_PARAMETER;
    }
    if (!configuration || u.ConfigurationHandle != configuration->handle) {
        return USBD_STATUS_INVALID_PARAMETER;
    }
    const USBD_INTERFACE_INFORMATION& info = u.Interface;
    const AlternateSettingDescription* setting =
        configuration->description.Find(info.InterfaceNumber, info.AlternateSetting);
    if (setting == nullptr) {
        return USBD_STATUS_INTERFACE_NOT_FOUND;
    }
    if (info.Length != GET_USBD_INTERFACE_SIZE(setting->endpoints.size()) ||
        !Fits(*r.urb, kSelectInterfaceFixedSize + info.Length)) {
        return USBD_STATUS_INVALID_PARAMETER;
    }
    r.queue = controlPipe;
    r.interfaceOffsets.push_back(kSelectInterfaceFixedSize);
    r.steps.push_back(SetInterfaceStep(info.InterfaceNumber, info.AlternateSetting));
    return USBD_STATUS_SUCCESS;
}

USBD_STATUS UsbStack::Impl::PlanControlLocked(Request& r) {
    r.queue = controlPipe;
    if (r.kind == RequestKind::ClearEndpointFeature) {
        const _URB_CONTROL_FEATURE_REQUEST& u = r.urb->UrbControlFeatureRequest;
        if (!Fits(*r.urb, sizeof u)) {
            return USBD_STATUS_INVALID_PARAMETER;
        }
        r.steps.push_back(
            ControlStep({kRequestTypeToEndpoint, kClearFeature, u.FeatureSelector, u.Index, 0}));
        return USBD_STATUS_SUCCESS;
    }

    std::span<uint8_t> data;
    SetupPacket setup;
    if (r.kind == RequestKind::GetDescriptor) {
        const _URB_CONTROL_DESCRIPTOR_REQUEST& u = r.urb->UrbControlDescriptorRequest;
        if (!Fits(*r.urb, sizeof u) || u.TransferBufferLength > kLargestControlData) {
            return USBD_STATUS_INVALID_PARAMETER;
        }
        if (USBD_STATUS s =
                DataStage(u.TransferBuffer, u.TransferBufferMDL, u.TransferBufferLength, data);
            s != USBD_STATUS_SUCCESS) {
            return s;
        }
        setup = {kDirectionIn, kGetDescriptor,
                 static_cast<uint16_t>(u.DescriptorType << 8 | u.Index), u.LanguageId,
                 static_cast<uint16_t>(u.TransferBufferLength)};
    } else {
        const _URB_CONTROL_VENDOR_OR_CLASS_REQUEST& u = r.urb->UrbControlVendorClassRequest;
        if (!Fits(*r.urb, sizeof u) || u.TransferBufferLength > kLargestControlData) {
            return USBD_STATUS_INVALID_PARAMETER;
        }
        if (USBD_STATUS s =
                DataStage(u.TransferBuffer, u.TransferBufferMDL, u.TransferBufferLength, data);
            s != USBD_STATUS_SUCCESS) {
            return s;
        }
        const bool in = (u.TransferFlags & USBD_TRANSFER_DIRECTION) == USBD_TRANSFER_DIRECTION_IN;
        r.shortIsError = ShortInTransferFails(u.TransferFlags, options.shortInTransfer);
        setup = {static_cast<uint8_t>(kRequestTypeVendorDevice | (in ? kDirectionIn : 0) |
                                      u.RequestTypeReservedBits),
                 u.Request, u.Value, u.Index, static_cast<uint16_t>(u.TransferBufferLength)};
    }
    r.steps.push_back(ControlStep(setup, data));
    return USBD_STATUS_SUCCESS;
}

// The pipe a pipe request or transfer names, after checking the URB holds
// the whole request body.
USBD_STATUS UsbStack::Impl::BindPipeLocked(Request& r, size_t bodySize, USBD_PIPE_HANDLE handle) {
    if (!Fits(*r.urb, bodySize)) {
        return USBD_STATUS_INVALID_PARAMETER;
    }
    r.target = FindPipeLocked(handle);
    return r.target ? USBD_STATUS_SUCCESS : USBD_STATUS_INVALID_PIPE_HANDLE;
}

USBD_STATUS UsbStack::Impl::PlanPipeRequestLocked(Request& r) {
    const _URB_PIPE_REQUEST& u = r.urb->UrbPipeRequest;
    if (USBD_STATUS s = BindPipeLocked(r, sizeof u, u.PipeHandle); s != USBD_STATUS_SUCCESS) {
        return s;
    }
    if (r.kind == RequestKind::AbortPipe) {
        r.queue = abortQueue;  // no bus traffic, and never behind a stuck control request
        return USBD_STATUS_SUCCESS;
    }
    r.queue = controlPipe;
    r.steps.push_back(ControlStep({kRequestTypeToEndpoint, kClearFeature,
                                   USB_FEATURE_ENDPOINT_STALL, r.target->endpointAddress, 0}));
    return USBD_STATUS_SUCCESS;
}

USBD_STATUS UsbStack::Impl::PlanTransferLocked(Request& r) {
    const _URB_BULK_OR_INTERRUPT_TRANSFER& u = r.urb->UrbBulkOrInterruptTransfer;
    if (USBD_STATUS s = BindPipeLocked(r, sizeof u, u.PipeHandle); s != USBD_STATUS_SUCCESS) {
        return s;
    }
    const Pipe& pipe = *r.target;
    const bool pipeIn = USB_ENDPOINT_DIRECTION_IN(pipe.endpointAddress) != 0;
    const bool urbIn = (u.TransferFlags & USBD_TRANSFER_DIRECTION) == USBD_TRANSFER_DIRECTION_IN;
    if ((pipe.type != UsbdPipeTypeBulk && pipe.type != UsbdPipeTypeInterrupt) || pipeIn != urbIn ||
        u.TransferBufferLength > pipe.maximumTransferSize) {
        return USBD_STATUS_INVALID_PARAMETER;
    }
    BusStep step;
    if (USBD_STATUS s =
            DataStage(u.TransferBuffer, u.TransferBufferMDL, u.TransferBufferLength, step.data);
        s != USBD_STATUS_SUCCESS) {
        return s;
    }
    r.shortIsError = ShortInTransferFails(u.TransferFlags, options.shortInTransfer);
    const bool interrupt = pipe.type == UsbdPipeTypeInterrupt;
    step.transaction.type = interrupt ? UsbmonTransferType::Interrupt : UsbmonTransferType::Bulk;
    step.transaction.endpoint = pipe.endpointAddress;
    step.transaction.interval = interrupt ? pipe.interval : 0;
    step.carriesResult = true;
    r.steps.push_back(step);
    r.queue = r.target;
    return USBD_STATUS_SUCCESS;
}

}  // namespace usbsim
