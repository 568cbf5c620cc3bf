import 'dart:ui';

import 'package:flutter/services.dart';
import 'package:flutter_mirn/flutter_mirn.dart';
import 'package:flutter_test/flutter_test.dart';

void main() {
  TestWidgetsFlutterBinding.ensureInitialized();
  const mirn = FlutterMirn();
  final calls = <MethodCall>[];
  final answers = <String, Object?>{};

  setUp(() {
    calls.clear();
    answers.clear();
    TestDefaultBinaryMessengerBinding.instance.defaultBinaryMessenger
        .setMockMethodCallHandler(FlutterMirn.channel, (call) async {
      calls.add(call);
      return answers[call.method];
    });
  });

  tearDown(() {
    TestDefaultBinaryMessengerBinding.instance.defaultBinaryMessenger
        .setMockMethodCallHandler(FlutterMirn.channel, null);
  });

  test('a texture id keeps its 64 bits', () async {
    answers['createTexture'] = 0x7f1234567890;
    expect(await mirn.createTexture(), 0x7f1234567890);
  });

  test('the size comes as doubles', () async {
    answers['getSize'] = <String, double>{'width': 1920, 'height': 1080};
    expect(await mirn.getSize(), const Size(1920, 1080));
  });

  test('device information is null unless it is complete', () async {
    answers['getMirnDevInfo'] = <String>[];
    expect(await mirn.getMirnDevInfo(), isNull);
    answers['getMirnDevInfo'] = <String>['Desk', 'ID1', '1', '1.0.0'];
    expect(
      await mirn.getMirnDevInfo(),
      const MirnDeviceInfo(
          name: 'Desk', id: 'ID1', flag: true, firmwareVersion: '1.0.0'),
    );
  });

  test('progress is null without a connection', () async {
    answers['getUpgradeProgress'] = <int>[];
    expect(await mirn.getUpgradeProgress(), isNull);
    answers['getUpgradeProgress'] = <int>[39, 40];
    final progress = await mirn.getUpgradeProgress();
    expect(progress, const MirnUpgradeProgress(39, 40));
    expect(progress!.allSent, isTrue);
  });

  test('arguments travel under their keys', () async {
    await mirn.keyDown(65);
    await mirn.setVideoQuality(MirnVideoQuality.hd720);
    mirn.mouseEventButtons(MirnButtonEvent.leftDown, 1, 2);
    await Future<void>.delayed(Duration.zero);
    expect(calls[0].arguments, {'key': 65});
    expect(calls[1].arguments, {'quality': '720P'});
    expect(calls[2].method, 'mouseEventButtons');
    expect(calls[2].arguments, {'x': 1, 'y': 2, 'type': 'lbdown'});
  });

  test('positions cover the full scale', () {
    const size = Size(101, 51);
    expect(FlutterMirn.toPosition(Offset.zero, size), (0, 0));
    expect(FlutterMirn.toPosition(const Offset(100, 50), size),
        (mirnFullScale, mirnFullScale));
    expect(FlutterMirn.toPosition(const Offset(-5, 500), size),
        (0, mirnFullScale));
    expect(FlutterMirn.toPosition(Offset.zero, Size.zero), isNull);
  });
}
