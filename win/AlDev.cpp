/*
 * AlDev.cpp (Windows) - the serial devices through SetupAPI, merged with
 * the system's serial map, and their arrivals and removals (VekDev.h).
 *
 * SetupAPI knows each port's device: the COM-port interface class holds
 * the ports of serial drivers (usbser, on-board UARTs, most adapters), the
 * Modem class the modems whose driver does not register that interface
 * (their port is the driver key's "AttachedTo", or the device key's
 * "PortName"). The hardware id gives the USB ids and interface, the USB
 * parent's instance id the serial number. The serial map (HKLM\HARDWARE\
 * DEVICEMAP\SERIALCOMM) lists every port a driver announced, virtual ones
 * included: a port only it knows is listed with its driver's device name.
 *
 * The watch registers for COM-port interface notifications with
 * CM_Register_Notification (Windows 8 and later, looked up at run time so
 * that the library still loads where it is missing). The system calls
 * back on its own threads: the callback only queues the interface's link
 * and sets an event; the port name is looked up by the thread that waits.
 */
#include <algorithm>
#include <cstdio>
#include <cstring>
#include <deque>
#include <new>
#include <string>
#include <vector>
#include "WinHelp.h"
#include <cfgmgr32.h>
#include <setupapi.h>
#include "AlDev.h"
#include "IoWait.h"
#include "VekAlloc.h"
#include "VekCore.h"
#include "VekVosx.h"

namespace {

// The COM-port interface class and the Modem setup class.
const GUID kComPorts = {0x86e0d1e0, 0x8089, 0x11d0, {0x9c, 0xe4, 0x08, 0x00, 0x3e, 0x30, 0x1f, 0x73}};
const GUID kModems = {0x4d36e96d, 0xe325, 0x11ce, {0xbf, 0xc1, 0x08, 0x00, 0x2b, 0xe1, 0x03, 0x18}};

/* The value of name in key as UTF-8, "" when absent. */
std::string reg_text(HKEY key, const wchar_t* name) {
    wchar_t buf[256];
    DWORD size = sizeof buf - sizeof(wchar_t), type = 0;
    if (RegQueryValueExW(key, name, nullptr, &type, (BYTE*)buf, &size) != ERROR_SUCCESS || type != REG_SZ) {
        return "";
    }
    buf[size / sizeof(wchar_t)] = 0;
    char out[512];
    win::to_utf8(buf, out, sizeof out);
    return out;
}

/* The COM port a device is: its device key's "PortName", else its driver
 * key's "AttachedTo" (modems). */
std::string port_of(HDEVINFO set, SP_DEVINFO_DATA* dev) {
    std::string port;
    for (DWORD which : {(DWORD)DIREG_DEV, (DWORD)DIREG_DRV}) {
        HKEY key = SetupDiOpenDevRegKey(set, dev, DICS_FLAG_GLOBAL, 0, which, KEY_QUERY_VALUE);
        if (key != INVALID_HANDLE_VALUE) {
            port = reg_text(key, which == DIREG_DEV ? L"PortName" : L"AttachedTo");
            RegCloseKey(key);
        }
        if (port.compare(0, 3, "COM") == 0) {
            return port;
        }
    }
    return "";
}

std::string dev_prop(HDEVINFO set, SP_DEVINFO_DATA* dev, DWORD prop) {
    wchar_t buf[512] = {};
    if (!SetupDiGetDeviceRegistryPropertyW(set, dev, prop, nullptr, (BYTE*)buf, sizeof buf - 2 * sizeof(wchar_t),
                                           nullptr)) {
        return "";
    }
    char out[768];
    win::to_utf8(buf, out, sizeof out);  // a multi-string's first entry
    return out;
}

/* The hexadecimal number after key ("VID_") in a hardware id, or -1. */
vek_s32 id_field(const std::string& hwid, const char* key) {
    size_t at = hwid.find(key);
    if (at == std::string::npos) {
        return -1;
    }
    return (vek_s32)std::strtol(hwid.c_str() + at + std::strlen(key), nullptr, 16);
}

std::string instance_id(DEVINST inst) {
    wchar_t buf[MAX_DEVICE_ID_LEN + 1] = {};
    if (CM_Get_Device_IDW(inst, buf, MAX_DEVICE_ID_LEN, 0) != CR_SUCCESS) {
        return "";
    }
    char out[3 * MAX_DEVICE_ID_LEN];
    win::to_utf8(buf, out, sizeof out);
    return out;
}

/* A USB device's serial number is the last part of its instance id; the
 * system makes one up (with '&' in it) when the device has none. An
 * interface of a composite device ("MI_02") takes its parent's. */
std::string usb_serial(DEVINST inst, const std::string& hwid) {
    DEVINST parent;
    if (hwid.find("MI_") != std::string::npos && CM_Get_Parent(&parent, inst, 0) == CR_SUCCESS) {
        inst = parent;
    }
    std::string id = instance_id(inst);
    size_t slash = id.rfind('\\');
    std::string last = slash == std::string::npos ? "" : id.substr(slash + 1);
    return last.find('&') == std::string::npos ? last : "";
}

void put(char* dst, size_t cap, const std::string& s) {
    std::snprintf(dst, cap, "%s", s.c_str());
}

/* The device's entry in the list, from what SetupAPI knows of it. */
bool describe(HDEVINFO set, SP_DEVINFO_DATA* dev, VekDevInfo* d) {
    std::string port = port_of(set, dev);
    if (port.empty()) {
        return false;
    }
    *d = VekDevInfo{};
    put(d->path, sizeof d->path, port);
    std::string hwid = dev_prop(set, dev, SPDRP_HARDWAREID);
    std::string upper = hwid;
    for (char& c : upper) {
        c = (char)(c >= 'a' && c <= 'z' ? c - 32 : c);
    }
    bool usb = upper.compare(0, 4, "USB\\") == 0;
    d->kind = usb                                       ? VEK_DEV_USB
              : upper.compare(0, 8, "BTHENUM\\") == 0   ? VEK_DEV_BT
              : upper.compare(0, 5, "ACPI\\") == 0 || upper.compare(0, 4, "PCI\\") == 0 ? VEK_DEV_UART
                                                         : VEK_DEV_OTHER;
    d->vid = usb ? id_field(upper, "VID_") : -1;
    d->pid = usb ? id_field(upper, "PID_") : -1;
    d->iface = usb ? id_field(upper, "MI_") : -1;
    if (usb) {
        put(d->serial, sizeof d->serial, usb_serial(dev->DevInst, upper));
    }
    put(d->driver, sizeof d->driver, dev_prop(set, dev, SPDRP_SERVICE));
    std::string desc = dev_prop(set, dev, SPDRP_FRIENDLYNAME);
    // A friendly name ends with the port, "USB Serial Device (COM3)":
    // the path says that already.
    std::string tail = " (" + port + ")";
    if (desc.size() > tail.size() && desc.compare(desc.size() - tail.size(), tail.size(), tail) == 0) {
        desc.erase(desc.size() - tail.size());
    }
    put(d->desc, sizeof d->desc, desc.empty() ? dev_prop(set, dev, SPDRP_DEVICEDESC) : desc);
    return true;
}

/* Every present device of a class (interfaces: the COM-port interface
 * class, else a setup class), each with its interface link when it has
 * one. */
void setup_list(const GUID* guid, bool interfaces, std::vector<VekDevInfo>* out,
                std::vector<std::pair<std::wstring, std::string>>* links) {
    HDEVINFO set = SetupDiGetClassDevsW(guid, nullptr, nullptr, DIGCF_PRESENT | (interfaces ? DIGCF_DEVICEINTERFACE : 0));
    if (set == INVALID_HANDLE_VALUE) {
        return;
    }
    SP_DEVINFO_DATA dev = {};
    dev.cbSize = sizeof dev;
    for (DWORD i = 0; SetupDiEnumDeviceInfo(set, i, &dev); i++) {
        VekDevInfo d;
        if (!describe(set, &dev, &d)) {
            continue;
        }
        out->push_back(d);
        SP_DEVICE_INTERFACE_DATA itf = {};
        itf.cbSize = sizeof itf;
        if (!links || !interfaces || !SetupDiEnumDeviceInterfaces(set, &dev, guid, 0, &itf)) {
            continue;
        }
        union {
            SP_DEVICE_INTERFACE_DETAIL_DATA_W detail;
            char room[sizeof(SP_DEVICE_INTERFACE_DETAIL_DATA_W) + 1024 * sizeof(wchar_t)];
        } u = {};
        u.detail.cbSize = sizeof u.detail;
        if (SetupDiGetDeviceInterfaceDetailW(set, &itf, &u.detail, sizeof u - 2 * sizeof(wchar_t), nullptr, nullptr)) {
            links->emplace_back(u.detail.DevicePath, d.path);
        }
    }
    SetupDiDestroyDeviceInfoList(set);
}

/* The ports of the serial map that SetupAPI did not give. */
vek_s32 serial_map(std::vector<VekDevInfo>* found) {
    HKEY key;
    LONG r = RegOpenKeyExW(HKEY_LOCAL_MACHINE, L"HARDWARE\\DEVICEMAP\\SERIALCOMM", 0, KEY_QUERY_VALUE, &key);
    if (r == ERROR_FILE_NOT_FOUND) {
        return 0;  // no port was ever announced
    }
    if (r != ERROR_SUCCESS) {
        SetLastError((DWORD)r);
        return VEK_ERR_IO;
    }
    size_t known = found->size();
    for (DWORD i = 0;; i++) {
        wchar_t name[256], data[128];
        DWORD nameLen = 256, dataLen = sizeof data - sizeof(wchar_t), type = 0;
        r = RegEnumValueW(key, i, name, &nameLen, nullptr, &type, (BYTE*)data, &dataLen);
        if (r == ERROR_NO_MORE_ITEMS) {
            break;
        }
        if (r != ERROR_SUCCESS || type != REG_SZ) {
            continue;
        }
        data[dataLen / sizeof(wchar_t)] = 0;
        VekDevInfo d = {};
        d.kind = VEK_DEV_OTHER;
        d.vid = d.pid = d.iface = -1;
        win::to_utf8(data, d.path, sizeof d.path);
        if (std::any_of(found->begin(), found->begin() + (ptrdiff_t)known,
                        [&](const VekDevInfo& k) { return _stricmp(k.path, d.path) == 0; })) {
            continue;
        }
        win::to_utf8(name, d.desc, sizeof d.desc);
        // The device's name without its number: "Serial", "ProlificSerial".
        const char* drv = std::strrchr(d.desc, '\\');
        std::snprintf(d.driver, sizeof d.driver, "%s", drv ? drv + 1 : d.desc);
        for (size_t n = std::strlen(d.driver); n > 0 && d.driver[n - 1] >= '0' && d.driver[n - 1] <= '9'; n--) {
            d.driver[n - 1] = 0;
        }
        found->push_back(d);
    }
    RegCloseKey(key);
    return 0;
}

/* COM2 before COM10: by length, then by text; one entry per port. */
void sort_unique(std::vector<VekDevInfo>* found) {
    auto less = [](const VekDevInfo& a, const VekDevInfo& b) {
        size_t la = std::strlen(a.path), lb = std::strlen(b.path);
        return la != lb ? la < lb : _stricmp(a.path, b.path) < 0;
    };
    std::stable_sort(found->begin(), found->end(), less);
    found->erase(std::unique(found->begin(), found->end(),
                             [](const VekDevInfo& a, const VekDevInfo& b) { return _stricmp(a.path, b.path) == 0; }),
                 found->end());
}

} // namespace

namespace plat {

typedef CONFIGRET(WINAPI* RegisterFn)(PCM_NOTIFY_FILTER, PVOID, PCM_NOTIFY_CALLBACK, PHCMNOTIFICATION);
typedef CONFIGRET(WINAPI* UnregisterFn)(HCMNOTIFICATION);

struct DevWatchSys {
    HANDLE ready = nullptr;  // set while the queue holds something
    CRITICAL_SECTION lock;
    std::deque<std::pair<bool, std::wstring>> queue;  // (arrived, interface link)
    std::vector<std::pair<std::wstring, std::string>> ports;  // interface link -> COM port
    HCMNOTIFICATION notif = nullptr;
    UnregisterFn unregister = nullptr;
    HMODULE cfg = nullptr;
};

namespace {

DWORD CALLBACK on_notify(HCMNOTIFICATION, PVOID ctx, CM_NOTIFY_ACTION action, PCM_NOTIFY_EVENT_DATA data, DWORD) {
    if (action != CM_NOTIFY_ACTION_DEVICEINTERFACEARRIVAL && action != CM_NOTIFY_ACTION_DEVICEINTERFACEREMOVAL) {
        return ERROR_SUCCESS;
    }
    DevWatchSys* s = (DevWatchSys*)ctx;
    EnterCriticalSection(&s->lock);
    try {
        s->queue.emplace_back(action == CM_NOTIFY_ACTION_DEVICEINTERFACEARRIVAL,
                              std::wstring(data->u.DeviceInterface.SymbolicLink));
        SetEvent(s->ready);
    } catch (const std::bad_alloc&) {
        // Lost for want of memory: the waiting thread cannot know which.
    }
    LeaveCriticalSection(&s->lock);
    return ERROR_SUCCESS;
}

/* The COM port behind an interface link that has just arrived. */
std::string port_of_link(const std::wstring& link) {
    HDEVINFO set = SetupDiCreateDeviceInfoList(nullptr, nullptr);
    if (set == INVALID_HANDLE_VALUE) {
        return "";
    }
    std::string port;
    SP_DEVICE_INTERFACE_DATA itf = {};
    itf.cbSize = sizeof itf;
    SP_DEVINFO_DATA dev = {};
    dev.cbSize = sizeof dev;
    if (SetupDiOpenDeviceInterfaceW(set, link.c_str(), 0, &itf)) {
        SetupDiGetDeviceInterfaceDetailW(set, &itf, nullptr, 0, nullptr, &dev);
        if (dev.DevInst) {
            port = port_of(set, &dev);
        }
    }
    SetupDiDestroyDeviceInfoList(set);
    return port;
}

} // namespace

vek_s32 devw_open(DevWatchSys** out) {
    HMODULE cfg = LoadLibraryExW(L"cfgmgr32.dll", nullptr, LOAD_LIBRARY_SEARCH_SYSTEM32);
    RegisterFn reg = cfg ? (RegisterFn)(void*)GetProcAddress(cfg, "CM_Register_Notification") : nullptr;
    UnregisterFn unreg = cfg ? (UnregisterFn)(void*)GetProcAddress(cfg, "CM_Unregister_Notification") : nullptr;
    if (!reg || !unreg) {
        if (cfg) {
            FreeLibrary(cfg);
        }
        return VEK_ERR_NO_WATCH;
    }
    void* mem = vek_malloc__(sizeof(DevWatchSys));
    if (!mem) {
        FreeLibrary(cfg);
        return VEK_ERR_FULL;
    }
    DevWatchSys* s = new (mem) DevWatchSys;
    s->cfg = cfg;
    InitializeCriticalSection(&s->lock);
    s->unregister = unreg;
    s->ready = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    vek_s32 rc = s->ready ? 0 : VEK_ERR_IO;
    try {
        std::vector<VekDevInfo> ignored;
        setup_list(&kComPorts, true, &ignored, &s->ports);
    } catch (const std::bad_alloc&) {
        rc = VEK_ERR_FULL;
    }
    CM_NOTIFY_FILTER filter = {};
    filter.cbSize = sizeof filter;
    filter.FilterType = CM_NOTIFY_FILTER_TYPE_DEVICEINTERFACE;
    filter.u.DeviceInterface.ClassGuid = kComPorts;
    if (rc == 0 && reg(&filter, s, &on_notify, &s->notif) != CR_SUCCESS) {
        s->notif = nullptr;
        SetLastError(ERROR_GEN_FAILURE);
        rc = VEK_ERR_IO;
    }
    if (rc < 0) {
        devw_close(s);
        return rc;
    }
    *out = s;
    return 0;
}

vek_s32 devw_next(DevWatchSys* s, VekDevEvent* ev, vek_s32 tmo, vek_s32 flags) {
    vek_u32 start = vek_msec();
    for (;;) {
        EnterCriticalSection(&s->lock);
        bool have = !s->queue.empty();
        std::pair<bool, std::wstring> item;
        if (have) {
            item.first = s->queue.front().first;
            item.second.swap(s->queue.front().second);
            s->queue.pop_front();
        }
        if (s->queue.empty()) {
            ResetEvent(s->ready);
        }
        LeaveCriticalSection(&s->lock);
        if (!have) {
            vek_s32 w = win_hnd_swait__(s->ready, vek::ms_left(start, tmo), flags);
            if (w < 0) {
                return w;
            }
            continue;
        }
        auto known = std::find_if(s->ports.begin(), s->ports.end(),
                                  [&](const std::pair<std::wstring, std::string>& p) { return _wcsicmp(p.first.c_str(), item.second.c_str()) == 0; });
        std::string port;
        if (item.first) {
            port = port_of_link(item.second);
            if (!port.empty()) {
                if (known != s->ports.end()) {
                    known->second = port;
                } else {
                    s->ports.emplace_back(item.second, port);
                }
            }
        } else if (known != s->ports.end()) {
            port = known->second;
            s->ports.erase(known);
        }
        if (port.empty()) {
            continue;  // a port whose name was never known to the watch
        }
        *ev = VekDevEvent{};
        ev->action = item.first ? VEK_DEV_ARRIVED : VEK_DEV_REMOVED;
        win::to_utf8(item.second.c_str(), ev->syspath, sizeof ev->syspath);
        put(ev->dev.path, sizeof ev->dev.path, port);
        ev->dev.kind = VEK_DEV_OTHER;
        ev->dev.vid = ev->dev.pid = ev->dev.iface = -1;
        return 0;
    }
}

void devw_close(DevWatchSys* s) {
    if (s->notif) {
        s->unregister(s->notif);  // waits for a callback in progress
    }
    if (s->ready) {
        CloseHandle(s->ready);
    }
    DeleteCriticalSection(&s->lock);
    FreeLibrary(s->cfg);
    s->~DevWatchSys();
    vek_free__(s);
}

} // namespace plat

extern "C" {

VEK_API vek_s32 vek_dev_list_serial(const char*, VekDevInfo* devs, vek_s32 cap) {
    std::vector<VekDevInfo> found;
    try {
        setup_list(&kComPorts, true, &found, nullptr);
        setup_list(&kModems, false, &found, nullptr);
        vek_s32 rc = serial_map(&found);
        if (rc < 0) {
            return rc;
        }
        sort_unique(&found);
    } catch (const std::bad_alloc&) {
        return VEK_ERR_FULL;
    }
    for (size_t i = 0; i < found.size() && (vek_s32)i < cap; i++) {
        devs[i] = found[i];
    }
    return (vek_s32)found.size();
}

} // extern "C"
