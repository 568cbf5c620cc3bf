import 'dart:typed_data';
import 'dart:ui';

import 'package:flutter/services.dart';
import 'package:flutter_mirn/flutter_mirn.dart';
import 'package:flutter_test/flutter_test.dart';

void main() {
  TestWidgetsFlutterBinding.ensureInitialized();
  const mirn = FlutterMirn();
  final calls = <MethodCall>[];
  final answers = <String, Object?>{};
  PlatformException? failure;

  // What was called since the beginning of the test, in order.
  void expectCalls(List<(String, Object?)> expected) {
    expect(calls.map((call) => call.method), expected.map((call) => call.$1));
    for (final (index, call) in expected.indexed) {
      expect(calls[index].arguments, call.$2, reason: call.$1);
    }
  }

  setUp(() {
    calls.clear();
    answers.clear();
    failure = null;
    TestDefaultBinaryMessengerBinding.instance.defaultBinaryMessenger
        .setMockMethodCallHandler(FlutterMirn.channel, (call) async {
      calls.add(call);
      if (failure case final error?) {
        throw error;
      }
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

  test('a second image is not taken for the first', () {
    const left = MirnUpgradeProgress(39, 40);
    final watch = MirnUpgradeWatch(left);
    expect(watch.allSent(left), isFalse, reason: 'nothing was sent yet');
    expect(watch.allSent(null), isFalse, reason: 'no connection');
    expect(watch.allSent(const MirnUpgradeProgress(0, 40)), isFalse);
    expect(watch.allSent(left), isTrue, reason: 'now it is its own last chunk');
    // Of another length one poll is enough.
    expect(MirnUpgradeWatch(left).allSent(const MirnUpgradeProgress(6, 7)),
        isTrue);
  });

  test('a first image is watched from nothing', () {
    final watch = MirnUpgradeWatch(const MirnUpgradeProgress(0, 0));
    expect(watch.allSent(const MirnUpgradeProgress(0, 0)), isFalse);
    expect(watch.allSent(const MirnUpgradeProgress(0, 2)), isFalse);
    expect(watch.allSent(const MirnUpgradeProgress(1, 2)), isTrue);
    expect(MirnUpgradeWatch(null).allSent(const MirnUpgradeProgress(0, 1)),
        isTrue);
    expect(MirnUpgradeWatch(null).allSent(const MirnUpgradeProgress(0, 0)),
        isFalse);
  });

  test('a single chunk after a single chunk goes unnoticed', () {
    final watch = MirnUpgradeWatch(const MirnUpgradeProgress(0, 1));
    expect(watch.allSent(const MirnUpgradeProgress(0, 1)), isFalse);
  });

  test('arguments travel under their keys', () async {
    answers['setMirnDevInfo'] = 0;
    answers['reqUpgradeFirmware'] = 1;
    await mirn.keyDown(65);
    await mirn.keyUp(66);
    await mirn.releaseAllKeys();
    await mirn.setVideoQuality(MirnVideoQuality.hd720);
    await mirn.bindTexture(0x7f1234567890);
    await mirn.setLedStatus(3);
    expect(await mirn.setMirnDevInfo('Büro'), 0);
    expect(await mirn.reqUpgradeFirmware('/tmp/image.hex'), 1);
    expectCalls([
      ('keyDown', {'key': 65}),
      ('keyUp', {'key': 66}),
      ('keyUp', {'key': 0}),
      ('setVideoQuality', {'quality': '720P'}),
      ('bindTexture', {'textureId': 0x7f1234567890}),
      ('setLedStatus', {'ledStatus': 3}),
      ('setMirnDevInfo', {'name': 'Büro'}),
      ('reqUpgradeFirmware', {'path': '/tmp/image.hex'}),
    ]);
  });

  test('commands without arguments send none', () async {
    answers['getDeviceList'] = <String>[mirnDeviceName, 'Webcam'];
    answers['isVidPidExist'] = true;
    answers['initKmProxy'] = true;
    answers['open'] = true;
    await mirn.releaseTexture();
    expect(await mirn.getDeviceList(), [mirnDeviceName, 'Webcam']);
    expect(await mirn.isVidPidExist(), isTrue);
    expect(await mirn.initKmProxy(), isTrue);
    expect(await mirn.open(), isTrue);
    await mirn.normalColor();
    await mirn.bestColor();
    await mirn.release();
    expectCalls([
      for (final method in const [
        'releaseTexture',
        'getDeviceList',
        'isVidPidExist',
        'initKmProxy',
        'open',
        'normalColor',
        'bestColor',
        'release',
      ])
        (method, null),
    ]);
  });

  test('without a device the answers are no and nothing', () async {
    answers['getDeviceList'] = <String>[];
    answers['isVidPidExist'] = false;
    answers['initKmProxy'] = false;
    answers['open'] = false;
    expect(await mirn.getDeviceList(), isEmpty);
    expect(await mirn.isVidPidExist(), isFalse);
    expect(await mirn.initKmProxy(), isFalse);
    expect(await mirn.open(), isFalse);
  });

  test('pointer commands carry position, button and delta', () async {
    mirn.mouseMove(1, 2);
    mirn.mouseEventButtons(MirnButtonEvent.leftDown, 3, 4);
    mirn.mouseWheel(5, 6, -1);
    await Future<void>.delayed(Duration.zero);
    expectCalls([
      ('mouseMove', {'x': 1, 'y': 2}),
      ('mouseEventButtons', {'x': 3, 'y': 4, 'type': 'lbdown'}),
      ('mouseWheel', {'x': 5, 'y': 6, 'delta': -1}),
    ]);
  });

  test('a pointer command that fails bothers nobody', () async {
    failure = PlatformException(code: 'INVALID_ARGUMENT');
    mirn.mouseMove(1, 2);
    await Future<void>.delayed(Duration.zero);
    expect(calls.single.method, 'mouseMove');
  });

  group('the frame grabber', () {
    const grabber = MirnFrameGrabber();

    test('sends lists of integers', () async {
      answers['open'] = true;
      answers['setResolution'] = true;
      expect(await grabber.open(), isTrue);
      expect(await grabber.open(2), isTrue);
      expect(await grabber.setResolution(1280, 720), isTrue);
      expectCalls([
        ('open', [0]),
        ('open', [2]),
        ('setResolution', [1280, 720]),
      ]);
    });

    test('sends nothing along with the other commands', () async {
      answers['getPlatformVersion'] = 'macOS Linux';
      answers['getDeviceList'] = <String>[mirnDeviceName];
      answers['getWidth'] = 640;
      answers['getHeight'] = 480;
      expect(await grabber.getPlatformVersion(), 'macOS Linux');
      expect(await grabber.getDeviceList(), [mirnDeviceName]);
      expect(await grabber.getWidth(), 640);
      expect(await grabber.getHeight(), 480);
      await grabber.release();
      expectCalls([
        for (final method in const [
          'getPlatformVersion',
          'getDeviceList',
          'getWidth',
          'getHeight',
          'release',
        ])
          (method, null),
      ]);
    });

    test('takes a frame apart', () async {
      final bytes = Uint8List.fromList([1, 2, 3]);
      answers['captureFrame'] = <String, Object>{
        'width': 1,
        'height': 1,
        'data': bytes,
      };
      final frame = await grabber.captureFrame();
      expect((frame!.width, frame.height), (1, 1));
      expect(frame.data, bytes);
      expectCalls([('captureFrame', null)]);
    });

    test('has no frame before the first, and throws all other errors',
        () async {
      failure = PlatformException(code: 'CAPTURE_FAILED');
      expect(await grabber.captureFrame(), isNull);
      failure = PlatformException(code: 'INVALID_ARGUMENT');
      await expectLater(
          grabber.captureFrame(),
          throwsA(isA<PlatformException>().having(
              (error) => error.code, 'code', 'INVALID_ARGUMENT')));
    });
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
