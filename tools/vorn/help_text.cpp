// The help texts of `vorn`, kept apart from the parser so they read as the
// user sees them.
#include "options.h"

namespace vorn::cli {

std::string MainHelp() {
  return "Usage: vorn COMMAND [OPTION]...\n"
         "Speech front end for a three-microphone array with a loudspeaker:\n"
         "beamforming, echo cancellation, noise suppression, voice activity and gain control.\n"
         "\n"
         "Commands:\n"
         "  process IN -o OUT   enhance a recording (see 'vorn process --help')\n"
         "  batch MANIFEST      enhance every recording a manifest lists (see 'vorn batch --help')\n"
         "  demo [DIR]          simulate a scene, process it and score the result\n"
         "\n"
         "  -h, --help          show this help and exit\n"
         "      --version       show the version and exit\n"
         "\n"
         "Exit status: 0 on success, 1 when a file or the processing fails,\n"
         "2 when the command line is wrong.\n";
}

std::string BatchHelp() {
  return "Usage: vorn batch MANIFEST [OPTION]...\n"
         "Enhance every recording MANIFEST lists, one per line as\n"
         "  input,output[,reference[,options]]\n"
         "where options are 'vorn process' switches for that row (\"--mode comm --ns 2\").\n"
         "Relative paths are read from the manifest's directory; blank lines, lines\n"
         "starting with '#' and a header line starting with 'input' are skipped.\n"
         "Each output is written under a temporary name and renamed when whole.\n"
         "A row that fails is reported and the others go on.\n"
         "\n"
         "  -j, --jobs=N          process N files at once (default 1)\n"
         "      --resume          skip rows whose output already exists\n"
         "      --summary=FILE    per-file results, JSON if FILE ends in .json, else CSV\n"
         "                        (default MANIFEST.summary.csv)\n"
         "      --profile, --mode, --config, --agc, --bf, --doa, --aec, --ns,\n"
         "      --azimuth, --vad-mode   defaults for every row, as for 'vorn process'\n"
         "\n"
         "Exit status: 0 when every row was processed (or skipped), 1 when any failed.\n";
}

std::string ProcessHelp() {
  return "Usage: vorn process IN -o OUT [OPTION]...\n"
         "Enhance IN, a 16 kHz 16-bit recording of the three microphones (WAV or raw),\n"
         "and write the mono result to OUT. A fourth channel, if present, is the\n"
         "loudspeaker reference for the echo canceller. IN may be '-' for standard input.\n"
         "OUT ending in .wav gets a WAV header, .pcm or .raw holds bare samples, and\n"
         "'-' writes bare samples to standard output.\n"
         "\n"
         "Input:\n"
         "  -o, --output=OUT      where the enhanced audio goes (required)\n"
         "      --ref=FILE        loudspeaker reference as a separate mono file\n"
         "      --channels=N      channels of a raw input: 3 (default) or 4\n"
         "\n"
         "Processing:\n"
         "      --profile=NAME    enhanced (default) or classic: the front end's methods\n"
         "                        as first designed, kept bit for bit\n"
         "      --mode=NAME       wakeup (default), asr or comm\n"
         "      --config=FILE     read the modes' switches from a configuration file\n"
         "      --agc=N           gain control: 0 off, 1 or 2 on\n"
         "      --bf=N            beamformer variant 0..7 (0: first microphone)\n"
         "      --doa=N           direction finding: 0 none, 1 per-frame tracking,\n"
         "                        2 or 3 utterance search\n"
         "      --aec=N           echo canceller: 0 off, 1 recognition output,\n"
         "                        2 communication output, 3 both\n"
         "      --ns=N            noise suppression: 0 off, 1 single channel, 2 multi-channel\n"
         "      --azimuth=DEG     steering direction of the beamformer, 0..359\n"
         "      --vad-mode=N      voice activity detector mode, 1 or 2\n"
         "  With a reference and no --aec, the echo canceller is switched on\n"
         "  (2 in comm mode, 1 otherwise). With the enhanced profile the recording's\n"
         "  direction comes from per-frame tracking, switched on unless --doa says\n"
         "  otherwise, which leaves the loudspeaker's sound out; --doa 2 or 3 searches\n"
         "  the capture as recorded (its last five minutes), echo included.\n"
         "\n"
         "Results:\n"
         "      --vad=FILE        per-frame speech flags as CSV (time_s,speech)\n"
         "      --track=FILE      per-frame azimuth as CSV (time_s,azimuth_deg);\n"
         "                        turns on per-frame tracking unless --doa says otherwise\n"
         "      --json            print a summary as JSON on standard output\n"
         "  -h, --help            show this help and exit\n"
         "\n"
         "A progress bar is drawn on standard error for long inputs when it is a terminal.\n";
}

std::string DemoHelp() {
  return "Usage: vorn demo [DIR] [--seconds=S]\n"
         "Simulate a talker at a known direction in a reverberant room with noise and\n"
         "loudspeaker echo, process it in the default mode with the echo canceller fed\n"
         "with the reference, write input.wav (three microphones and the reference) and\n"
         "output.wav into DIR (default: vorn-demo), and print what was found against\n"
         "the truth.\n"
         "\n"
         "      --seconds=S       length of the scene, 4..120 (default 10)\n"
         "      --profile=NAME    enhanced (default) or classic\n"
         "  -h, --help            show this help and exit\n";
}

}  // namespace vorn::cli
