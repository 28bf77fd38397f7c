// The exported constants of the plug-in interface and the version exports.
#include <ZUBCocoa/ZUBConstants.h>

const char* const kZUBInfoAppKey = "KEY_ZUB_INFO_APP_KEY";
const char* const kZUBInfoChannel = "KEY_ZUB_INFO_CHANNEL";
const char* const kZUBInfoCustomUserId = "KEY_ZUB_INFO_CUSTOM_USER_ID";
const char* const kZUBInfoUserType = "KEY_ZUB_INFO_USER_TYPE";
const char* const kZUBInfoDeviceId = "KEY_ZUB_INFO_DEVICE_ID";
const char* const kZUBInfoMid = "KEY_ZUB_INFO_MID";
const char* const kZUBInfoAppVer = "KEY_ZUB_INFO_APP_VER";
const char* const kZUBInfoOSVer = "KEY_ZUB_INFO_OS_VER";
const char* const kZUBInfoModelName = "KEY_ZUB_INFO_MODEL_NAME";
const char* const kZUBInfoNet = "KEY_ZUB_INFO_NET";
const char* const kZUBInfoSDKVer = "KEY_ZUB_INF_SDK_VER";
const char* const kZUBInfoDeviceName = "KEY_ZUB_INFO_DEVICE_NAME";
const char* const kZUBInfoPlatform = "KEY_ZUB_INFO_PLATFORM";
const char* const kZUBInfoTimeZone = "KEY_ZUB_INFO_TIME_ZONE";
const char* const kZUBInfoLanguage = "KEY_ZUB_INFO_LANGUAGE";
const char* const kZUBInfoResolution = "KEY_ZUB_INFO_RESOLUTION";
const char* const kZUBInfoOperator = "KEY_ZUB_INFO_OPERATOR";
const char* const kZUBInfoSpeedTest = "KEY_ZUB_INFO_SPEED_TEST";
const char* const kZUBInfoAccount = "KEY_ZUB_INFO_ACCOUNT";
const char* const kZUBInfoLM = "KEY_ZUB_INFO_LM";
const char* const kZUBInfoHotfix = "KEY_ZUB_INFO_HOT_FIX";

const double ZUBCocoaVersionNumber = 1.0;
const unsigned char ZUBCocoaVersionString[] = "@(#)PROGRAM:ZUBCocoa  PROJECT:ZUBCocoa-1\n";
