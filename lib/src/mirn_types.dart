import 'dart:typed_data';

import 'package:flutter/foundation.dart';

/// The full scale of a pointer position: 0 is the target screen's left (top)
/// edge, this its right (bottom) edge.
const int mirnFullScale = 32767;

/// The name under which the device's picture is listed.
const String mirnDeviceName = 'Nuvra Mirn';

/// The sizes that a Mirn delivers.
enum MirnVideoQuality {
  /// 1280 x 720.
  hd720('720P'),

  /// 1920 x 1080.
  hd1080('1080P');

  const MirnVideoQuality(this.word);

  /// What travels on the channel. Case and length matter.
  final String word;
}

/// A button that goes down or up.
enum MirnButtonEvent {
  /// The left button is pressed.
  leftDown('lbdown'),

  /// The left button is released.
  leftUp('lbup'),

  /// The right button is pressed.
  rightDown('rbdown'),

  /// The right button is released.
  rightUp('rbup'),

  /// The middle button is pressed.
  middleDown('mbdown'),

  /// The middle button is released.
  middleUp('mbup');

  const MirnButtonEvent(this.word);

  /// What travels on the channel.
  final String word;
}

/// What a connected Mirn says about itself.
@immutable
class MirnDeviceInfo {
  /// Creates the information from its four parts.
  const MirnDeviceInfo({
    required this.name,
    required this.id,
    required this.flag,
    required this.firmwareVersion,
  });

  /// From the list that the channel answers; null unless it is complete.
  static MirnDeviceInfo? fromList(List<String> parts) => parts.length < 4
      ? null
      : MirnDeviceInfo(
          name: parts[0],
          id: parts[1],
          flag: parts[2] == '1',
          firmwareVersion: parts[3],
        );

  /// The name that `setMirnDevInfo` has given it.
  final String name;

  /// The device's own identifier.
  final String id;

  /// The device's flag.
  final bool flag;

  /// For example '1.0.0'; empty when the device did not greet.
  final String firmwareVersion;

  @override
  bool operator ==(Object other) =>
      other is MirnDeviceInfo &&
      other.name == name &&
      other.id == id &&
      other.flag == flag &&
      other.firmwareVersion == firmwareVersion;

  @override
  int get hashCode => Object.hash(name, id, flag, firmwareVersion);

  @override
  String toString() => 'MirnDeviceInfo($name, $id, $flag, $firmwareVersion)';
}

/// How far sending a firmware image has come.
///
/// It counts what was sent, not what the device took: judge an upgrade by the
/// version after a new connection. The numbers are never reset: until the first
/// chunk of another image is sent they are still those of the one before. A
/// [MirnUpgradeWatch] tells the two apart.
@immutable
class MirnUpgradeProgress {
  /// Creates a progress from its two numbers.
  const MirnUpgradeProgress(this.current, this.total);

  /// Number of the last chunk sent, from 0.
  final int current;

  /// Number of chunks; 0 before the first upgrade.
  final int total;

  /// Whether the last chunk was sent, of this image or of the one before: see
  /// [MirnUpgradeWatch].
  bool get allSent => total > 0 && current + 1 >= total;

  @override
  bool operator ==(Object other) =>
      other is MirnUpgradeProgress &&
      other.current == current &&
      other.total == total;

  @override
  int get hashCode => Object.hash(current, total);

  @override
  String toString() => 'MirnUpgradeProgress($current of $total)';
}

/// Tells when one image was sent, whatever an earlier one has left behind.
///
/// ```dart
/// final watch = MirnUpgradeWatch(await mirn.getUpgradeProgress());
/// await mirn.reqUpgradeFirmware(path);
/// while (!watch.allSent(await mirn.getUpgradeProgress())) {
///   await Future<void>.delayed(const Duration(milliseconds: 200));
/// }
/// ```
///
/// It needs one poll that shows another pair than the one before the upgrade.
/// An image of as many chunks as the one before goes unnoticed when no poll
/// falls between its first and its last chunk, and one of a single chunk after
/// another of a single chunk always does: give up waiting after a time without
/// a change.
class MirnUpgradeWatch {
  /// Begins with the progress as it is before the image is requested.
  MirnUpgradeWatch(this._before);

  final MirnUpgradeProgress? _before;
  bool _moved = false;

  /// Whether the image was sent whole, as far as [now], the newest progress,
  /// and those of earlier calls tell.
  bool allSent(MirnUpgradeProgress? now) {
    if (now == null) {
      return false;
    }
    _moved = _moved || now != (_before ?? const MirnUpgradeProgress(0, 0));
    return _moved && now.allSent;
  }
}

/// One frame of the second plug-in.
@immutable
class MirnFrame {
  /// Creates a frame from its size and bytes.
  const MirnFrame(this.width, this.height, this.data);

  /// 640.
  final int width;

  /// 480.
  final int height;

  /// Rows of `width` pixels of three bytes: blue, green, red.
  final Uint8List data;
}
