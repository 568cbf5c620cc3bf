import 'dart:async';

import 'package:flutter/gestures.dart';
import 'package:flutter/material.dart';
import 'package:flutter/services.dart';
import 'package:flutter_mirn/flutter_mirn.dart';

import 'virtual_keys.dart';

void main() => runApp(const ExampleApp());

/// One window: the target's picture and a line that says how things stand.
class ExampleApp extends StatelessWidget {
  /// Creates the application.
  const ExampleApp({super.key});

  @override
  Widget build(BuildContext context) => MaterialApp(
        title: 'Mirn',
        theme: ThemeData.dark(useMaterial3: true),
        home: const TargetPage(),
      );
}

/// The target's screen with its status line.
class TargetPage extends StatefulWidget {
  /// Creates the page.
  const TargetPage({super.key});

  @override
  State<TargetPage> createState() => _TargetPageState();
}

class _TargetPageState extends State<TargetPage> {
  final FlutterMirn _mirn = const FlutterMirn();
  final FocusNode _focus = FocusNode();
  int? _texture;
  Size _size = const Size(1920, 1080);
  String _status = 'Looking for a Mirn ...';
  bool _connecting = false;

  @override
  void initState() {
    super.initState();
    unawaited(_connect());
  }

  @override
  void dispose() {
    final texture = _texture;
    _mirn.releaseAllKeys().ignore();
    _mirn.release().ignore();
    _focus.dispose();
    super.dispose();
    if (texture != null) {
      // After the widget is gone: the id may be used again.
      WidgetsBinding.instance
          .addPostFrameCallback((_) => _mirn.destroyTexture(texture));
    }
  }

  void _say(String status) {
    if (mounted) {
      setState(() => _status = status);
    }
  }

  // The page's one texture, kept from the moment it exists: a connection that
  // fails later uses it again, and dispose() finds it.
  Future<void> _makeTexture() async {
    if (_texture != null) {
      return;
    }
    final texture = await _mirn.createTexture();
    if (!mounted) {
      _mirn.destroyTexture(texture);
    } else if (texture != 0) {
      _texture = texture;
    }
  }

  Future<void> _connect() async {
    if (_connecting) {
      return;
    }
    _connecting = true;
    try {
      await _makeTexture();
      await _mirn.release();
      final keys = mounted && await _mirn.initKmProxy();
      // The camera is not for a page that is gone: its dispose() has been.
      final picture = mounted &&
          await _mirn.open() &&
          await _mirn.setVideoQuality(MirnVideoQuality.hd1080);
      final info = mounted && keys ? await _mirn.getMirnDevInfo() : null;
      final size = await _mirn.getSize();
      if (!mounted) {
        return;
      }
      setState(() {
        _size = size.isEmpty ? _size : size;
        _status = switch ((keys, picture)) {
          (true, true) => 'Connected: ${info?.name ?? ''} '
              'firmware ${info?.firmwareVersion ?? '?'}',
          (true, false) => 'Keyboard and pointer work; there is no picture.',
          (false, true) => 'There is a picture; keyboard and pointer are not '
              'connected.',
          (false, false) => 'No Mirn found. Plug it in and connect again.',
        };
      });
    } on MissingPluginException {
      _say('This platform has no Mirn plug-in.');
    } catch (error) {
      _say('Connecting failed: $error');
    } finally {
      _connecting = false;
      if (!mounted) {
        _mirn.release().ignore();
      }
    }
  }

  KeyEventResult _onKey(FocusNode node, KeyEvent event) {
    final key = virtualKeyOf(event.physicalKey);
    if (key == null) {
      return KeyEventResult.ignored;
    }
    switch (event) {
      case KeyDownEvent():
        _mirn.keyDown(key).ignore();
      case KeyUpEvent():
        _mirn.keyUp(key).ignore();
      default:
        break; // the target repeats held keys by itself
    }
    return KeyEventResult.handled;
  }

  @override
  Widget build(BuildContext context) {
    final texture = _texture;
    return Scaffold(
      body: Column(
        children: [
          Expanded(
            child: Center(
              child: texture == null
                  ? const CircularProgressIndicator()
                  : AspectRatio(
                      aspectRatio: _size.width / _size.height,
                      child: Focus(
                        focusNode: _focus,
                        autofocus: true,
                        onKeyEvent: _onKey,
                        onFocusChange: (focused) {
                          if (!focused) {
                            _mirn.releaseAllKeys().ignore();
                          }
                        },
                        child: TargetView(
                            mirn: _mirn, textureId: texture, focus: _focus),
                      ),
                    ),
            ),
          ),
          Row(
            children: [
              TextButton(
                onPressed: () => unawaited(_connect()),
                child: const Text('Connect'),
              ),
              Expanded(child: Text(_status)),
            ],
          ),
        ],
      ),
    );
  }
}

/// The picture; what the pointer does over it goes to the target.
class TargetView extends StatefulWidget {
  /// Creates the view of one texture.
  const TargetView({
    required this.mirn,
    required this.textureId,
    required this.focus,
    super.key,
  });

  /// Where the pointer commands go.
  final FlutterMirn mirn;

  /// The texture that is shown.
  final int textureId;

  /// Takes the keys once the picture was clicked.
  final FocusNode focus;

  @override
  State<TargetView> createState() => _TargetViewState();
}

class _TargetViewState extends State<TargetView> {
  int _buttons = 0;

  static const _edges = [
    (kPrimaryButton, MirnButtonEvent.leftDown, MirnButtonEvent.leftUp),
    (kSecondaryButton, MirnButtonEvent.rightDown, MirnButtonEvent.rightUp),
    (kTertiaryButton, MirnButtonEvent.middleDown, MirnButtonEvent.middleUp),
  ];

  void _onPointer(PointerEvent event, Size size) {
    final position = FlutterMirn.toPosition(event.localPosition, size);
    if (position == null) {
      return;
    }
    final (x, y) = position;
    widget.mirn.mouseMove(x, y);
    final changed = _buttons ^ event.buttons;
    for (final (bit, down, up) in _edges) {
      if (changed & bit != 0) {
        widget.mirn.mouseEventButtons(event.buttons & bit != 0 ? down : up, x, y);
      }
    }
    _buttons = event.buttons;
  }

  void _onSignal(PointerSignalEvent event, Size size) {
    final position = FlutterMirn.toPosition(event.localPosition, size);
    if (event is PointerScrollEvent &&
        position != null &&
        event.scrollDelta.dy != 0) {
      final (x, y) = position;
      widget.mirn.mouseWheel(x, y, event.scrollDelta.dy < 0 ? -1 : 1);
    }
  }

  @override
  Widget build(BuildContext context) => LayoutBuilder(
        builder: (context, constraints) {
          final size = constraints.biggest;
          return Listener(
            onPointerDown: (event) {
              widget.focus.requestFocus();
              _onPointer(event, size);
            },
            onPointerMove: (event) => _onPointer(event, size),
            onPointerHover: (event) => _onPointer(event, size),
            onPointerUp: (event) => _onPointer(event, size),
            onPointerCancel: (event) => _onPointer(event, size),
            onPointerSignal: (event) => _onSignal(event, size),
            child: Texture(textureId: widget.textureId),
          );
        },
      );
}
