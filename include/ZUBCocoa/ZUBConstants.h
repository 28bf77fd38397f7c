// Exported constants of the library.
#pragma once

#include <ZUBCocoa/ZUBExport.h>

/// Name of the notification posted (on the caller's thread, before
/// ZUBPro::startWithAppKey returns) when a start has completed:
/// "ZUB_MAIN_SERVICE_START_NOTIFICATION". Plug-ins wait for it.
ZUB_EXTERN_C ZUB_EXPORT const char* const ZUBProMainServiceStartNotification;

/// Name of the notification a started reachability notifier posts when the
/// network status changes: "kNetworkReachabilityChangedNotification".
ZUB_EXTERN_C ZUB_EXPORT const char* const kZUBProReachabilityChangedNotification;

// Keys of the dictionary ZUBPro::getMainServicesInfo returns to plug-ins.
ZUB_EXTERN_C ZUB_EXPORT const char* const kZUBInfoAppKey;        // "KEY_ZUB_INFO_APP_KEY"
ZUB_EXTERN_C ZUB_EXPORT const char* const kZUBInfoChannel;       // "KEY_ZUB_INFO_CHANNEL"
ZUB_EXTERN_C ZUB_EXPORT const char* const kZUBInfoCustomUserId;  // "KEY_ZUB_INFO_CUSTOM_USER_ID"
ZUB_EXTERN_C ZUB_EXPORT const char* const kZUBInfoUserType;      // "KEY_ZUB_INFO_USER_TYPE" (absent for a new user)
ZUB_EXTERN_C ZUB_EXPORT const char* const kZUBInfoDeviceId;      // "KEY_ZUB_INFO_DEVICE_ID" (the OpenUDID)
ZUB_EXTERN_C ZUB_EXPORT const char* const kZUBInfoMid;           // "KEY_ZUB_INFO_MID" (holds the vendor identifier)
ZUB_EXTERN_C ZUB_EXPORT const char* const kZUBInfoAppVer;        // "KEY_ZUB_INFO_APP_VER"
ZUB_EXTERN_C ZUB_EXPORT const char* const kZUBInfoOSVer;         // "KEY_ZUB_INFO_OS_VER"
ZUB_EXTERN_C ZUB_EXPORT const char* const kZUBInfoModelName;     // "KEY_ZUB_INFO_MODEL_NAME"
ZUB_EXTERN_C ZUB_EXPORT const char* const kZUBInfoNet;           // "KEY_ZUB_INFO_NET"
ZUB_EXTERN_C ZUB_EXPORT const char* const kZUBInfoSDKVer;        // "KEY_ZUB_INF_SDK_VER" (spelled "INF")
ZUB_EXTERN_C ZUB_EXPORT const char* const kZUBInfoDeviceName;    // "KEY_ZUB_INFO_DEVICE_NAME"
ZUB_EXTERN_C ZUB_EXPORT const char* const kZUBInfoPlatform;      // "KEY_ZUB_INFO_PLATFORM"
ZUB_EXTERN_C ZUB_EXPORT const char* const kZUBInfoTimeZone;      // "KEY_ZUB_INFO_TIME_ZONE"
ZUB_EXTERN_C ZUB_EXPORT const char* const kZUBInfoLanguage;      // "KEY_ZUB_INFO_LANGUAGE"
ZUB_EXTERN_C ZUB_EXPORT const char* const kZUBInfoResolution;    // "KEY_ZUB_INFO_RESOLUTION"
ZUB_EXTERN_C ZUB_EXPORT const char* const kZUBInfoOperator;      // "KEY_ZUB_INFO_OPERATOR"
ZUB_EXTERN_C ZUB_EXPORT const char* const kZUBInfoSpeedTest;     // "KEY_ZUB_INFO_SPEED_TEST"
ZUB_EXTERN_C ZUB_EXPORT const char* const kZUBInfoAccount;       // "KEY_ZUB_INFO_ACCOUNT" (for plug-ins' own use)
ZUB_EXTERN_C ZUB_EXPORT const char* const kZUBInfoLM;            // "KEY_ZUB_INFO_LM" (for plug-ins' own use)
ZUB_EXTERN_C ZUB_EXPORT const char* const kZUBInfoHotfix;        // "KEY_ZUB_INFO_HOT_FIX" (for plug-ins' own use)

/// The library's version: 1.0, and "@(#)PROGRAM:ZUBCocoa  PROJECT:ZUBCocoa-1\n".
ZUB_EXTERN_C ZUB_EXPORT const double ZUBCocoaVersionNumber;
ZUB_EXTERN_C ZUB_EXPORT const unsigned char ZUBCocoaVersionString[];
