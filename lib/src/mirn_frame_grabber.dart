import 'package:flutter/foundation.dart';
import 'package:flutter/services.dart';

import 'mirn_types.dart';

/// The second plug-in: frames of 640 x 480 as raw bytes.
///
/// It serves the same channel name as the main plug-in, so a host has one of
/// the two: the one that its native side registered last.
class MirnFrameGrabber {
  /// Creates the wrapper. It holds no state.
  const MirnFrameGrabber();

  /// The channel that both plug-ins serve.
  @visibleForTesting
  static const MethodChannel channel = MethodChannel('flutter_mirn');

  /// A text that begins with 'macOS ', on every system.
  Future<String> getPlatformVersion() async =>
      (await channel.invokeMethod<String>('getPlatformVersion'))!;

  /// The names of all video capture devices.
  Future<List<String>> getDeviceList() async =>
      await channel.invokeListMethod<String>('getDeviceList') ??
      const <String>[];

  /// Opens the Mirn's camera, which is found by its name; [index] travels but
  /// has no influence.
  Future<bool> open([int index = 0]) async =>
      await channel.invokeMethod<bool>('open', <int>[index]) ?? false;

  /// The newest frame; null as long as none has come. After [release] it is
  /// still the last one.
  Future<MirnFrame?> captureFrame() async {
    try {
      final frame =
          await channel.invokeMapMethod<String, Object?>('captureFrame');
      return frame == null
          ? null
          : MirnFrame(frame['width']! as int, frame['height']! as int,
              frame['data']! as Uint8List);
    } on PlatformException catch (error) {
      if (error.code == 'CAPTURE_FAILED') {
        return null;
      }
      rethrow;
    }
  }

  /// Chooses one of the device's sizes. Frames stay 640 x 480.
  Future<bool> setResolution(int width, int height) async =>
      await channel
          .invokeMethod<bool>('setResolution', <int>[width, height]) ??
      false;

  /// 640.
  Future<int> getWidth() async =>
      (await channel.invokeMethod<int>('getWidth'))!;

  /// 480.
  Future<int> getHeight() async =>
      (await channel.invokeMethod<int>('getHeight'))!;

  /// Stops the camera.
  Future<void> release() => channel.invokeMethod<void>('release');
}
