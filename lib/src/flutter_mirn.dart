import 'dart:async';
import 'dart:ffi' as ffi;
import 'dart:ui' show Offset, Size;

import 'package:flutter/foundation.dart';
import 'package:flutter/services.dart';

import 'mirn_types.dart';

typedef _DestroyTextureNative = ffi.Void Function(ffi.Int64);
typedef _DestroyTexture = void Function(int);

/// The main plug-in: one method for each command of the channel
/// `flutter_mirn`.
///
/// The native side keeps one device manager for the whole process; all
/// instances of this class work with it. Without a device every method answers
/// what stands beside it and nothing throws, except where arguments are wrong.
class FlutterMirn {
  /// Creates the wrapper. It holds no state.
  const FlutterMirn();

  /// The channel that both plug-ins serve.
  @visibleForTesting
  static const MethodChannel channel = MethodChannel('flutter_mirn');

  // ---- the picture ----

  /// Makes a texture and answers its id, for `Texture(textureId: ...)`; 0 when
  /// the engine takes no textures now. Every texture shows the same picture.
  ///
  /// It lives until [destroyTexture].
  Future<int> createTexture() async =>
      (await channel.invokeMethod<int>('createTexture'))!;

  /// Does nothing; it is here because the channel has it. See
  /// [destroyTexture].
  Future<void> releaseTexture() =>
      channel.invokeMethod<void>('releaseTexture');

  /// Takes a texture away. Remove its `Texture` widget first; the id may be
  /// used again afterwards. An unknown id is ignored.
  ///
  /// Not a command of the channel but a function of the native library.
  void destroyTexture(int textureId) => _destroyTexture(textureId);

  static final _DestroyTexture _destroyTexture =
      ffi.DynamicLibrary.open('libflutter_mirn_plugin.so')
          .lookupFunction<_DestroyTextureNative, _DestroyTexture>(
              'flutter_mirn_destroy_texture');

  /// The names of all video capture devices.
  Future<List<String>> getDeviceList() => _texts('getDeviceList');

  /// Starts the picture: the first capture device named [mirnDeviceName].
  /// False when there is none or it can't be opened. Call [release] before
  /// opening again.
  Future<bool> open() => _yes('open');

  /// Stops the picture and lets the capture device go. Textures stay.
  Future<void> release() => channel.invokeMethod<void>('release');

  /// Chooses the size. False without an open device.
  Future<bool> setVideoQuality(MirnVideoQuality quality) async =>
      await channel.invokeMethod<bool>(
          'setVideoQuality', <String, Object>{'quality': quality.word}) ??
      false;

  /// Chooses the formats with less colour and less bandwidth.
  Future<void> normalColor() => channel.invokeMethod<void>('normalColor');

  /// Chooses the formats with more colour.
  Future<void> bestColor() => channel.invokeMethod<void>('bestColor');

  /// The size that [setVideoQuality] has chosen; empty before.
  Future<Size> getSize() async {
    final size = await channel.invokeMapMethod<String, double>('getSize');
    return Size(size?['width'] ?? 0, size?['height'] ?? 0);
  }

  /// Stores an id. It has no influence on the picture.
  Future<void> bindTexture(int textureId) => channel.invokeMethod<void>(
      'bindTexture', <String, Object>{'textureId': textureId});

  // ---- the device ----

  /// Whether a Mirn is plugged in. The first call looks at the bus and starts
  /// a watcher; later ones are cheap.
  Future<bool> isVidPidExist() => _yes('isVidPidExist');

  /// Connects to the device for keys, pointer, information, LED and firmware,
  /// in place of the connection before. Call it again after the device was
  /// pulled out and put back: a connection is never renewed by itself.
  Future<bool> initKmProxy() => _yes('initKmProxy');

  /// What the device says about itself; null without one. Connects first when
  /// there is no connection.
  Future<MirnDeviceInfo?> getMirnDevInfo() async =>
      MirnDeviceInfo.fromList(await _texts('getMirnDevInfo'));

  /// Gives the device a name of at most 20 bytes in UTF-8. Answers 0 even
  /// when the device refused it: read it back.
  Future<int> setMirnDevInfo(String name) async =>
      (await channel.invokeMethod<int>(
          'setMirnDevInfo', <String, Object>{'name': name}))!;

  /// Sets the LED; the low 8 bits count.
  Future<void> setLedStatus(int status) => channel.invokeMethod<void>(
      'setLedStatus', <String, Object>{'ledStatus': status});

  /// Sends a firmware image: Intel HEX where the path ends in `.hex` or
  /// `.HEX`, else its bytes as they are.
  ///
  /// 1: everything is queued; 0: the file can't be used; -4: no connection, or
  /// the capture device can't be reserved. It answers before the device has
  /// got the image: follow [getUpgradeProgress] with a [MirnUpgradeWatch], then
  /// connect anew and compare the version. Connecting earlier drops what has
  /// not been sent yet.
  Future<int> reqUpgradeFirmware(String path) async =>
      (await channel.invokeMethod<int>(
          'reqUpgradeFirmware', <String, Object>{'path': path}))!;

  /// How far sending has come; null without a connection. Never reset: before
  /// the first chunk of another image is sent it is that of the one before, so
  /// judge it by a [MirnUpgradeWatch].
  Future<MirnUpgradeProgress?> getUpgradeProgress() async {
    final numbers = await channel.invokeListMethod<int>('getUpgradeProgress');
    return numbers == null || numbers.length < 2
        ? null
        : MirnUpgradeProgress(numbers[0], numbers[1]);
  }

  // ---- keys and pointer ----

  /// Presses a key, named by its Windows virtual-key code.
  Future<void> keyDown(int virtualKey) => channel
      .invokeMethod<void>('keyDown', <String, Object>{'key': virtualKey});

  /// Releases a key; 0 releases all.
  Future<void> keyUp(int virtualKey) =>
      channel.invokeMethod<void>('keyUp', <String, Object>{'key': virtualKey});

  /// Releases every held key.
  Future<void> releaseAllKeys() => keyUp(0);

  /// Moves the pointer to a position of 0..[mirnFullScale] on each axis.
  ///
  /// Fire and forget: the command never answers, so there is nothing to await.
  /// Moves are thinned; the last one held back goes out before the next
  /// button, wheel or key.
  void mouseMove(int x, int y) =>
      _forget('mouseMove', <String, Object>{'x': x, 'y': y});

  /// Presses or releases a button at a position. Fire and forget.
  void mouseEventButtons(MirnButtonEvent event, int x, int y) => _forget(
      'mouseEventButtons', <String, Object>{'x': x, 'y': y, 'type': event.word});

  /// Turns the wheel by one notch at a position: up where [delta] is below 1,
  /// else down. Fire and forget.
  void mouseWheel(int x, int y, int delta) => _forget(
      'mouseWheel', <String, Object>{'x': x, 'y': y, 'delta': delta});

  /// A point of a widget of [size] as a position for the pointer commands, or
  /// null where the widget has no size.
  static (int, int)? toPosition(Offset point, Size size) {
    if (size.width <= 1 || size.height <= 1) {
      return null;
    }
    int axis(double at, double length) =>
        (at * mirnFullScale / (length - 1)).round().clamp(0, mirnFullScale);
    return (axis(point.dx, size.width), axis(point.dy, size.height));
  }

  // ---- helpers ----

  static Future<bool> _yes(String method) async =>
      await channel.invokeMethod<bool>(method) ?? false;

  static Future<List<String>> _texts(String method) async =>
      await channel.invokeListMethod<String>(method) ?? const <String>[];

  // An embedding may never answer these; nobody waits, and an error (no plug-in
  // on this platform) is nobody's either.
  static void _forget(String method, Map<String, Object> arguments) =>
      channel.invokeMethod<void>(method, arguments).ignore();
}
