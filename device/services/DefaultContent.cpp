#include "device/services/DefaultContent.h"

namespace orvel::sim {

Json defaultFeatures() {
  return Json::parse(R"([
    "android.hardware.audio.output", "android.hardware.bluetooth", "android.hardware.bluetooth_le",
    "android.hardware.camera", "android.hardware.camera.any", "android.hardware.microphone",
    "android.hardware.screen.landscape", "android.hardware.touchscreen", "android.hardware.touchscreen.multitouch",
    "android.hardware.wifi", "android.software.webview", "com.quarlo.hardware.display.8inch",
    "com.quarlo.hardware.farfield_microphone", "com.quarlo.hardware.privacy_shutter", "com.quarlo.software.assistant"
  ])");
}

namespace {

constexpr char kPackages[] = R"({
    "android": {"versionCode": 28, "versionName": "9", "uid": 1000},
    "com.android.bluetooth": {"versionCode": 28, "versionName": "9", "uid": 1002, "receivers": [
      {"class": "com.android.bluetooth.TransferReceiver", "actions": ["android.intent.action.BOOT_COMPLETED"]}]},
    "com.android.certinstaller": {"versionCode": 28, "versionName": "9", "uid": 10003},
    "com.android.externalstorage": {"versionCode": 28, "versionName": "9", "uid": 10004},
    "com.android.inputdevices": {"versionCode": 28, "versionName": "9", "uid": 1000},
    "com.android.keychain": {"versionCode": 28, "versionName": "9", "uid": 1000, "receivers": [
      {"class": "com.android.keychain.PackageReceiver", "actions": ["android.intent.action.PACKAGE_REMOVED"]}]},
    "com.android.location.fused": {"versionCode": 28, "versionName": "9", "uid": 1000},
    "com.android.packageinstaller": {"versionCode": 28, "versionName": "9", "uid": 10005,
      "launchActivity": "com.android.packageinstaller.InstallActivity"},
    "com.android.providers.calendar": {"versionCode": 28, "versionName": "9", "uid": 10006, "receivers": [
      {"class": "com.android.providers.calendar.CalendarReceiver",
       "actions": ["android.intent.action.BOOT_COMPLETED", "android.intent.action.TIME_SET"]}]},
    "com.android.providers.contacts": {"versionCode": 28, "versionName": "9", "uid": 10006, "receivers": [
      {"class": "com.android.providers.contacts.PackageReceiver",
       "actions": ["android.intent.action.PACKAGE_ADDED", "android.intent.action.PACKAGE_CHANGED",
                   "android.intent.action.PACKAGE_REMOVED", "android.intent.action.PACKAGE_REPLACED"]}]},
    "com.android.providers.downloads": {"versionCode": 28, "versionName": "9", "uid": 10007, "receivers": [
      {"class": "com.android.providers.downloads.DownloadReceiver",
       "actions": ["android.intent.action.BOOT_COMPLETED", "android.net.conn.CONNECTIVITY_CHANGE"]}]},
    "com.android.providers.media": {"versionCode": 900, "versionName": "9", "uid": 10007, "receivers": [
      {"class": "com.android.providers.media.MediaScannerReceiver",
       "actions": ["android.intent.action.BOOT_COMPLETED", "android.intent.action.MEDIA_MOUNTED"]}]},
    "com.android.providers.settings": {"versionCode": 28, "versionName": "9", "uid": 1000},
    "com.android.providers.userdictionary": {"versionCode": 28, "versionName": "9", "uid": 10006},
    "com.android.settings": {"versionCode": 28, "versionName": "9", "uid": 1000,
      "launchActivity": "com.android.settings.Settings"},
    "com.android.shell": {"versionCode": 28, "versionName": "9", "uid": 2000},
    "com.android.systemui": {"versionCode": 28, "versionName": "9", "uid": 10010,
      "metaData": {"com.quarlo.theme": "dusk", "com.quarlo.layout": 8}},
    "com.android.webview": {"versionCode": 438908634, "versionName": "96.0.4664.54", "uid": 10011,
      "metaData": {"com.android.webview.WebViewLibrary": "libwebview.so"}},

    "com.orvel.alarms": {"versionCode": 6204031, "versionName": "6.2.4.31", "uid": 10020,
      "launchActivity": "com.orvel.alarms.AlarmsActivity",
      "receivers": [
        {"class": "com.orvel.alarms.BootReceiver", "actions": ["android.intent.action.BOOT_COMPLETED"]},
        {"class": "com.orvel.alarms.ClockReceiver",
         "actions": ["android.intent.action.TIME_SET", "android.intent.action.TIMEZONE_CHANGED"]}]},
    "com.orvel.calendar": {"versionCode": 6204012, "versionName": "6.2.4.12", "uid": 10021,
      "launchActivity": "com.orvel.calendar.MonthActivity"},
    "com.orvel.camera": {"versionCode": 6204009, "versionName": "6.2.4.9", "uid": 10022,
      "launchActivity": "com.orvel.camera.CameraActivity", "metaData": {"com.orvel.camera.maximumSeconds": 90}},
    "com.orvel.delegate": {"versionCode": 6204077, "versionName": "6.2.4.77", "uid": 1000,
      "metaData": {"com.orvel.delegate.interface": 9, "com.orvel.delegate.channel": "stable"},
      "receivers": [{"class": "com.orvel.delegate.BootReceiver", "actions": ["android.intent.action.BOOT_COMPLETED"]}]},
    "com.orvel.diagnostics": {"versionCode": 6204003, "versionName": "6.2.4.3", "uid": 1000,
      "resources": {"2131427328": "{\"probes\": [\"wifi\", \"audio\", \"storage\"], \"everyMinutes\": 30}"}},
    "com.orvel.gallery": {"versionCode": 6204018, "versionName": "6.2.4.18", "uid": 10023,
      "launchActivity": "com.orvel.gallery.SlideshowActivity"},
    "com.orvel.recipes": {"versionCode": 5101000, "versionName": "5.1.1", "uid": 10024,
      "launchActivity": "com.orvel.recipes.RecipesActivity",
      "firstInstallMs": 1672840800000, "lastUpdateMs": 1687953600000},
    "com.orvel.timers": {"versionCode": 6204031, "versionName": "6.2.4.31", "uid": 10020,
      "launchActivity": "com.orvel.timers.TimersActivity"},
    "com.orvel.weather": {"versionCode": 4300210, "versionName": "4.30.2", "uid": 10025,
      "launchActivity": "com.orvel.weather.ForecastActivity",
      "metaData": {"com.orvel.weather.provider": "quarlo", "com.orvel.weather.refreshMinutes": 15},
      "receivers": [{"class": "com.orvel.weather.NetworkReceiver",
                     "actions": ["android.net.conn.CONNECTIVITY_CHANGE"]}],
      "firstInstallMs": 1672840800000, "lastUpdateMs": 1690372800000},

    "com.quarlo.account": {"versionCode": 310045, "versionName": "3.10.45", "uid": 1000, "receivers": [
      {"class": "com.quarlo.account.AccountReceiver",
       "actions": ["com.quarlo.hux.sso.action.account.added", "com.quarlo.hux.sso.action.account.removed"]}]},
    "com.quarlo.appstore": {"versionCode": 1190022, "versionName": "1.19.22", "uid": 10030,
      "launchActivity": "com.quarlo.appstore.StoreActivity",
      "receivers": [
        {"class": "com.quarlo.appstore.PackageReceiver",
         "actions": ["android.intent.action.PACKAGE_ADDED", "android.intent.action.PACKAGE_REMOVED"]},
        {"class": "com.quarlo.appstore.UpdateReceiver",
         "actions": ["android.intent.action.BOOT_COMPLETED", "android.intent.action.PACKAGE_REPLACED"]}]},
    "com.quarlo.calls": {"versionCode": 2207001, "versionName": "2.20.7", "uid": 10031,
      "launchActivity": "com.quarlo.calls.CallActivity"},
    "com.quarlo.home": {"versionCode": 6204102, "versionName": "6.2.4.102", "uid": 10032,
      "launchActivity": "com.quarlo.home.HomeActivity",
      "metaData": {"com.quarlo.home.cards": 12, "com.quarlo.home.style": "carousel"},
      "receivers": [
        {"class": "com.quarlo.home.BootReceiver", "actions": ["android.intent.action.BOOT_COMPLETED"]},
        {"class": "com.quarlo.home.PackageReceiver",
         "actions": ["android.intent.action.PACKAGE_ADDED", "android.intent.action.PACKAGE_REMOVED",
                     "android.intent.action.PACKAGE_REPLACED"]}],
      "resources": {"2131361792": "[\"weather\", \"calendar\", \"music\"]", "2131361793": "# Licences\n\nnone\n"}},
    "com.quarlo.maro": {"versionCode": 6204088, "versionName": "6.2.4.88", "uid": 10033,
      "metaData": {"com.quarlo.maro.locale": "de-DE"},
      "receivers": [
        {"class": "com.quarlo.maro.BootReceiver", "actions": ["android.intent.action.BOOT_COMPLETED"]},
        {"class": "com.quarlo.maro.NetworkReceiver", "actions": ["android.net.conn.CONNECTIVITY_CHANGE"]}],
      "resources": {"2131492864": "{\"locales\": [\"de-DE\", \"en-GB\", \"en-US\"]}"}},
    "com.quarlo.maro.wakeword": {"versionCode": 6204088, "versionName": "6.2.4.88", "uid": 10033,
      "metaData": {"com.quarlo.maro.wakeword.models": 4}},
    "com.quarlo.metrics": {"versionCode": 90114, "versionName": "9.1.14", "uid": 1000},
    "com.quarlo.music": {"versionCode": 3805002, "versionName": "3.80.5", "uid": 10034,
      "launchActivity": "com.quarlo.music.PlayerActivity",
      "firstInstallMs": 1672840800000, "lastUpdateMs": 1693051200000},
    "com.quarlo.ota": {"versionCode": 60204, "versionName": "6.2.4", "uid": 1000,
      "metaData": {"com.quarlo.ota.channel": "stable"},
      "receivers": [{"class": "com.quarlo.ota.UpdateReceiver",
                     "actions": ["android.intent.action.BOOT_COMPLETED", "android.net.conn.CONNECTIVITY_CHANGE"]}]},
    "com.quarlo.photos": {"versionCode": 1502000, "versionName": "1.50.2", "uid": 10035,
      "launchActivity": "com.quarlo.photos.PhotosActivity"},
    "com.quarlo.setup": {"versionCode": 6204021, "versionName": "6.2.4.21", "uid": 10036,
      "launchActivity": "com.quarlo.setup.WelcomeActivity"},
    "com.quarlo.smarthome": {"versionCode": 710004, "versionName": "7.10.4", "uid": 10037,
      "launchActivity": "com.quarlo.smarthome.DevicesActivity",
      "metaData": {"com.quarlo.smarthome.hub": 1}},
    "com.quarlo.video": {"versionCode": 2903117, "versionName": "2.90.3", "uid": 10038,
      "launchActivity": "com.quarlo.video.BrowseActivity",
      "firstInstallMs": 1678284000000, "lastUpdateMs": 1693051200000}
  })";

}  // namespace

Json defaultPackages() {
  return Json::parse(kPackages);
}

Json defaultProcesses() {
  return Json::parse(R"({
    "system": {"pid": 612, "uid": 1000, "importance": 100, "packages": ["android"]},
    "com.android.systemui": {"pid": 741, "uid": 10010, "importance": 100, "packages": ["com.android.systemui"]},
    "com.quarlo.home": {"pid": 1033, "uid": 10032, "importance": 100, "packages": ["com.quarlo.home"], "focused": true},
    "com.quarlo.home:cards": {"pid": 1104, "uid": 10032, "importance": 100, "packages": ["com.quarlo.home"],
      "reason": {"package": "com.quarlo.home", "class": "com.quarlo.home.HomeActivity"}},
    "com.quarlo.maro": {"pid": 803, "uid": 10033, "importance": 125,
      "packages": ["com.quarlo.maro", "com.quarlo.maro.wakeword"]},
    "com.quarlo.music": {"pid": 1322, "uid": 10034, "importance": 125, "packages": ["com.quarlo.music"]},
    "com.orvel.delegate": {"pid": 766, "uid": 1000, "importance": 200, "packages": ["com.orvel.delegate"],
      "reason": {"package": "com.quarlo.maro", "class": "com.quarlo.maro.DelegateService"}},
    "com.android.bluetooth": {"pid": 782, "uid": 1002, "importance": 200, "packages": ["com.android.bluetooth"]},
    "com.quarlo.account": {"pid": 871, "uid": 1000, "importance": 300, "packages": ["com.quarlo.account"]},
    "com.quarlo.metrics": {"pid": 890, "uid": 1000, "importance": 300, "packages": ["com.quarlo.metrics"]},
    "com.quarlo.smarthome": {"pid": 1216, "uid": 10037, "importance": 300, "packages": ["com.quarlo.smarthome"]},
    "android.process.media": {"pid": 948, "uid": 10007, "importance": 400,
      "packages": ["com.android.providers.downloads", "com.android.providers.media"]},
    "com.orvel.weather": {"pid": 1418, "uid": 10025, "importance": 400, "packages": ["com.orvel.weather"]},
    "com.quarlo.appstore": {"pid": 1501, "uid": 10030, "importance": 400, "packages": ["com.quarlo.appstore"]},
    "com.android.settings": {"pid": 1577, "uid": 1000, "importance": 400, "packages": ["com.android.settings"]}
  })");
}

}  // namespace orvel::sim
