#include "streamclass/event_listeners.h"

#include <algorithm>
#include <cstring>
#include <map>
#include <vector>

#include "kernel/kernel.h"
#include "kernel/sim_clock.h"
#include "streamclass/filter_view.h"
#include "streamclass/stream_class.h"

namespace winsim {
namespace {

struct Directory {
    std::mutex mutex;
    std::map<PVOID, std::vector<std::shared_ptr<DeviceEventListener>>> byAdapter;
};

Directory& Listeners() {
    static auto* directory = new Directory;
    return *directory;
}

}  // namespace

DeviceEventListener::DeviceEventListener(PVOID extension, const GUID& set, ULONG id, ULONG setIndex,
                                         const KSEVENT_SET* publishedSet)
    : extension_(extension), set_(set), id_(id), setIndex_(setIndex) {
    data_.NotificationType = KSEVENTF_EVENT_HANDLE;
    entry_.ListEntry.Flink = entry_.ListEntry.Blink = &entry_.ListEntry;
    entry_.EventData = &data_;
    entry_.NotificationType = KSEVENTF_EVENT_HANDLE;
    entry_.EventSet = publishedSet;
    if (publishedSet != nullptr) {
        for (ULONG i = 0; i < publishedSet->EventsCount; ++i) {
            if (publishedSet->EventItem[i].EventId == id) {
                entry_.EventItem = &publishedSet->EventItem[i];
            }
        }
    }
}

bool DeviceEventListener::Enabled() const {
    std::lock_guard lock(mutex_);
    return enabled_;
}

uint64_t DeviceEventListener::Count() const {
    std::lock_guard lock(mutex_);
    return count_;
}

bool DeviceEventListener::WaitForCount(uint64_t count, int64_t timeout100ns) const {
    const int64_t deadline = Now100ns() + timeout100ns;
    std::unique_lock lock(mutex_);
    while (count_ < count) {
        if (Now100ns() >= deadline) {
            return false;
        }
        signalled_.wait_until(lock, kernel::RealTimeAt(deadline));
    }
    return true;
}

bool DeviceEventListener::WaitForNext(std::chrono::milliseconds realTimeout) {
    std::unique_lock lock(mutex_);
    const bool arrived =
        signalled_.wait_for(lock, realTimeout, [this] { return count_ > taken_ || !enabled_; });
    if (!arrived || count_ == taken_) {
        return false;
    }
    ++taken_;
    return true;
}

void DeviceEventListener::Signal() {
    std::function<void()> observer;
    {
        std::lock_guard lock(mutex_);
        if (!enabled_) {
            return;
        }
        ++count_;
        observer = observer_;
    }
    signalled_.notify_all();
    if (observer) {
        observer();
    }
}

void DeviceEventListener::OnSignal(std::function<void()> observer) {
    std::lock_guard lock(mutex_);
    observer_ = std::move(observer);
}

void DeviceEventListener::Disable() {
    {
        std::lock_guard lock(mutex_);
        enabled_ = false;
        entry_.Flags |= KSEVENT_ENTRY_DELETED;
    }
    signalled_.notify_all();  // a waiter learns that nothing more comes
}

void DeviceEventListeners::Add(const std::shared_ptr<DeviceEventListener>& listener) {
    Directory& directory = Listeners();
    std::lock_guard lock(directory.mutex);
    directory.byAdapter[listener->extension_].push_back(listener);
}

bool DeviceEventListeners::Remove(const std::shared_ptr<DeviceEventListener>& listener) {
    Directory& directory = Listeners();
    std::lock_guard lock(directory.mutex);
    auto it = directory.byAdapter.find(listener->extension_);
    if (it == directory.byAdapter.end()) {
        return false;
    }
    auto& list = it->second;
    auto found = std::find(list.begin(), list.end(), listener);
    if (found == list.end()) {
        return false;
    }
    list.erase(found);
    // Under the directory lock: once removed, no signal reaches it.
    listener->Disable();
    return true;
}

std::vector<std::shared_ptr<DeviceEventListener>> DeviceEventListeners::TakeAll(PVOID extension) {
    Directory& directory = Listeners();
    std::lock_guard lock(directory.mutex);
    auto it = directory.byAdapter.find(extension);
    if (it == directory.byAdapter.end()) {
        return {};
    }
    std::vector<std::shared_ptr<DeviceEventListener>> taken = std::move(it->second);
    directory.byAdapter.erase(it);
    for (const auto& listener : taken) {
        listener->Disable();
    }
    return taken;
}

void DeviceEventListeners::Deliver(PVOID extension, const GUID& set, ULONG id) {
    Directory& directory = Listeners();
    std::lock_guard lock(directory.mutex);
    auto it = directory.byAdapter.find(extension);
    if (it == directory.byAdapter.end()) {
        return;
    }
    for (const auto& listener : it->second) {
        if (listener->id_ == id && SameGuid(listener->set_, set)) {
            listener->Signal();
        }
    }
}

// ---------------------------------------------------------------- StreamClass

std::shared_ptr<DeviceEventListener> StreamClass::EnableDeviceEvent(const GUID& set, ULONG id,
                                                                    NTSTATUS* status) {
    NTSTATUS result = STATUS_SUCCESS;
    std::shared_ptr<DeviceEventListener> listener;
    const HW_STREAM_HEADER* header = StreamHeader();
    PVOID extension = DeviceExtension();
    if (header == nullptr || extension == nullptr) {
        result = STATUS_INVALID_DEVICE_STATE;  // no started adapter, no filter
    } else {
        // The set and the id must be among those the minidriver published.
        const KSEVENT_SET* published = nullptr;
        ULONG index = 0;
        for (ULONG i = 0; i < header->NumDevEventArrayEntries; ++i) {
            if (header->DeviceEventsArray[i].Set != nullptr &&
                SameGuid(*header->DeviceEventsArray[i].Set, set)) {
                published = &header->DeviceEventsArray[i];
                index = i;
                break;
            }
        }
        const EventSetView* view = Filter().FindEventSet(set);
        if (published == nullptr || view == nullptr) {
            result = STATUS_PROPSET_NOT_FOUND;
        } else if (std::find(view->eventIds.begin(), view->eventIds.end(), id) ==
                   view->eventIds.end()) {
            result = STATUS_NOT_FOUND;
        } else {
            listener = std::make_shared<DeviceEventListener>(extension, set, id, index, published);
            // Listening from before the minidriver hears of it: an event it
            // signals from inside its routine is not lost.
            DeviceEventListeners::Add(listener);
            if (header->DeviceEventRoutine != nullptr) {
                HW_EVENT_DESCRIPTOR descriptor{};
                descriptor.Enable = TRUE;
                descriptor.EventEntry = listener->Entry();
                descriptor.EventData = listener->Data();
                descriptor.DeviceExtension = static_cast<struct _HW_DEVICE_EXTENSION*>(extension);
                descriptor.EnableEventSetIndex = index;
                descriptor.HwInstanceExtension = nullptr;
                RunAtIrql(PASSIVE_LEVEL, [&] { result = header->DeviceEventRoutine(&descriptor); });
            }
            if (!NT_SUCCESS(result)) {
                DeviceEventListeners::Remove(listener);
                listener.reset();
            }
        }
    }
    if (status != nullptr) {
        *status = result;
    }
    return listener;
}

// Tells the minidriver an event is gone; the class forgets it whatever it answers.
static NTSTATUS DisableWithMinidriver(const HW_STREAM_HEADER* header, PVOID extension,
                                      DeviceEventListener& listener) {
    NTSTATUS result = STATUS_SUCCESS;
    if (header != nullptr && header->DeviceEventRoutine != nullptr) {
        HW_EVENT_DESCRIPTOR descriptor{};
        descriptor.Enable = FALSE;
        descriptor.EventEntry = listener.Entry();
        descriptor.EventData = listener.Data();
        descriptor.DeviceExtension = static_cast<struct _HW_DEVICE_EXTENSION*>(extension);
        descriptor.EnableEventSetIndex = listener.SetIndex();
        RunAtIrql(PASSIVE_LEVEL, [&] { result = header->DeviceEventRoutine(&descriptor); });
    }
    return result;
}

NTSTATUS StreamClass::DisableDeviceEvent(const std::shared_ptr<DeviceEventListener>& listener) {
    if (listener == nullptr || !DeviceEventListeners::Remove(listener)) {
        return STATUS_NOT_FOUND;
    }
    return DisableWithMinidriver(StreamHeader(), DeviceExtension(), *listener);
}

void StreamClass::DisableAllDeviceEvents() {
    PVOID extension = DeviceExtension();
    if (extension == nullptr) {
        return;
    }
    const HW_STREAM_HEADER* header = StreamHeader();
    for (const auto& listener : DeviceEventListeners::TakeAll(extension)) {
        DisableWithMinidriver(header, extension, *listener);
    }
}

SrbResult StreamClass::PageOutDriver() {
    return SendAdapterSrb(SRB_PAGING_OUT_DRIVER);
}

}  // namespace winsim
