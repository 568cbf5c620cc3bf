/// Works with the Mirn, a small USB device that shows the screen of a *target*
/// computer as a video source and plays keyboard and mouse into that target.
///
/// [FlutterMirn] is the main plug-in: device, picture, keys and pointer.
/// [MirnFrameGrabber] is the second, smaller one, for hosts that register it:
/// it returns frames as raw bytes.
library;

export 'src/flutter_mirn.dart';
export 'src/mirn_frame_grabber.dart';
export 'src/mirn_types.dart';
