#!/usr/bin/env bash
# Writes the hand-made seed inputs of the fuzz targets into fuzz/corpus/.
# The files are checked in; rerun this only to change them. Seeds named ok_*
# are valid inputs that the regression test expects the reader to accept.
set -euo pipefail
cd "$(dirname "$0")/corpus"

le16() { printf "\\x$(printf %02x $(($1 & 255)))\\x$(printf %02x $((($1 >> 8) & 255)))"; }
le32() { le16 $(($1 & 65535)); le16 $((($1 >> 16) & 65535)); }

mkdir -p conf_read wav_header filter_read aec_filter_file vorn_proc list_file vorn_wav

# Configuration files.
cat > conf_read/ok_three_modes.conf <<'CONF'
# wake-up, recognition and communication switches
[VORN_WKP]
agc_flag = 1
bf_flag = 3
doa_flag = 1
aec_flag = 1
ns_flag = 1
bf_zaimuth = 90
vad_mode = 1
preaec_filter_path = "/data/vorn/aec_path.bin"

[VORN_ASR]
agc_flag = 2
bf_flag = 7
doa_flag = 3
aec_flag = 3
ns_flag = 2
bf_zaimuth = 359
vad_mode = 2

[VORN_COM]
agc_flag = 0
aec_flag = 2
ns_flag = 2
bf_zaimuth = -1
CONF
printf '; CR LF lines, odd case and quoting\r\n  [ vorn_com ]  \r\nAEC_FLAG=2;comment\r\nPreAec_Filter_Path = '"'"'/tmp/a b#c.bin'"'"'\r\nbf_flag = +4\r\nns_flag = 99999999999\r\n[VORN_WKP]\rvad_mode=2\n\rdoa_flag = 0x1' \
  > conf_read/ok_crlf_quotes.conf

# WAV headers: RIFF size, "WAVE", "fmt " chunk, optional "fact", "data".
wav() {  # fmt_size extra_fmt_bytes fact(0/1) data_bytes channels
  local fmt_size=$1 extra=$2 fact=$3 data_bytes=$4 channels=$5
  local header_len=$((20 + fmt_size + 8 + (fact ? 12 : 0)))
  printf 'RIFF'; le32 $((header_len - 8 + data_bytes)); printf 'WAVEfmt '
  le32 "$fmt_size"; le16 1; le16 "$channels"; le32 16000; le32 $((32000 * channels))
  le16 $((2 * channels)); le16 16
  printf "$extra"
  if [ "$fact" = 1 ]; then printf 'fact'; le32 4; le32 $((data_bytes / 2 / channels)); fi
  printf 'data'; le32 "$data_bytes"
  head -c "$data_bytes" /dev/zero | tr '\0' '\001'
}
wav 16 '' 0 24 4 > wav_header/ok_four_channels.wav
wav 18 '\x00\x00' 0 12 1 > wav_header/ok_extended_format.wav
wav 16 '' 1 12 3 > wav_header/ok_fact_chunk.wav
{ wav 16 '' 0 12 1; printf 'LISTjunk'; } > wav_header/trailing_chunk.wav
{ printf 'RIFF'; le32 62; printf 'WAVEfmt '; le32 16; le16 1; le16 1; le32 16000; le32 32000; le16 2; le16 16
  printf 'LIST'; le32 6; printf 'INFOab'; printf 'data'; le32 12; head -c 12 /dev/zero | tr '\0' '\001'
} > wav_header/ok_list_before_data.wav

# The vorn tool's reader: the same headers, a format chunk after the audio
# behind a LIST chunk, a streaming writer's unknown size, raw samples.
wav 16 '' 1 36 3 > vorn_wav/ok_fact_chunk.wav
wav 18 '\x00\x00' 0 24 4 > vorn_wav/ok_extended_format.wav
{ printf 'RIFF'; le32 66; printf 'WAVELIST'; le32 4; printf 'INFOdata'; le32 18
  head -c 18 /dev/zero | tr '\0' '\002'; printf 'fmt '; le32 16; le16 1; le16 3; le32 16000; le32 96000
  le16 6; le16 16; } > vorn_wav/ok_format_after_audio.wav
{ wav 16 '' 0 0 3; head -c 37 /dev/zero | tr '\0' '\003'; } > vorn_wav/ok_unknown_size.wav
head -c 30 /dev/zero | tr '\0' '\004' > vorn_wav/raw_samples.pcm

# Filter files: head length byte, head, float count, then the file's blocks.
{ printf '\x08AEC----_'; le32 2
  printf 'OTHER___'; le32 4; printf '\x01\x02\x03\x04'
  printf 'AEC----_'; le32 8; head -c 8 /dev/zero; } > filter_read/ok_second_block.bin
{ printf '\x03BF_'; le32 1; printf 'BF_W0000'; le32 4; printf '\x00\x00\x80\x3f'; } \
  > filter_read/ok_short_head.bin
{ printf '\x08AEC----_'; le32 4; printf 'AEC----_'; le32 16; head -c 8 /dev/zero; } \
  > filter_read/cut_short.bin

# Stored echo paths: records of 8-byte tag, 32-bit length, payload; the
# canceller's record holds 12 x 64 float taps.
taps() {  # a decaying, sign-changing path: 1, -0.5, 0.25, -0.125, then small values
  printf '\x00\x00\x80\x3f\x00\x00\x00\xbf\x00\x00\x80\x3e\x00\x00\x00\xbe'
  for _ in $(seq 5 768); do printf '\x6f\x12\x83\x3a'; done
}
{ printf 'GAIN____'; le32 4; printf '\x00\x00\x80\x3f'
  printf 'AEC----_'; le32 3072; taps; } > aec_filter_file/ok_echo_path.bin
{ printf 'AEC----_'; le32 3072; taps; printf 'TRAILER_'; le32 0; } > aec_filter_file/ok_first_record.bin
{ printf 'AEC----_'; le32 3068; taps | head -c 3068; } > aec_filter_file/short_record.bin

# Front-end runs: flags, active switches (agc bf doa aec ns vad, azimuth
# pick), vorn_mode, doa_update_flag, azimuth, [config], the switches of modes
# 0..2, frame count - 1, per-frame changes, microphone order, samples. A small
# switch value v is written as the byte v + 1; an azimuth pick below 0x80
# is (pick % 7) * 60 degrees.
talker() {  # 400 samples of a two-tone, slowly swelling waveform
  awk 'BEGIN { for (n = 0; n < 400; n++) {
      v = int((3000 + 20 * n) * (sin(n * 0.1963) + 0.5 * sin(n * 0.9817)));
      if (v < 0) v += 65536;
      printf "\\%03o\\%03o", v % 256, int(v / 256) } }' | xargs -0 printf
}
mode_switches='\x02\x01\x01\x01\x02\x02\x00\x03\x06\x02\x04\x03\x03\x01\x03\x04\x04\x03\x02\x03\x05'
{ printf '\x00\x02\x01\x01\x01\x02\x02\x00\x01\x02\x01'; printf "$mode_switches"
  printf '\x07'; head -c 8 /dev/zero; printf '\x00\x01\x02'; talker; } > vorn_proc/ok_wakeup.bin
# Modes 1 and 2 (echo canceller, post filter, fixed beams, DOA) in turn,
# run twice to compare.
{ printf '\x10\x02\x01\x01\x01\x02\x02\x00\x02\x02\x01'; printf "$mode_switches"
  printf '\x0b\x00\x00\x01\x03\x00\x00\x01\x02\x00\x03\x01\x01\x00\x00\x05\x03\x02\x03\x04\x02\x03\x02\x00\x00\x00'
  printf '\x02\x00\x01'; talker; } > vorn_proc/ok_mode_changes.bin
# The record's own switches (vorn_mode outside 0..2): all on, AGC 2, beam 7.
{ printf '\x00\x03\x08\x02\x02\x03\x03\x00\x00\x02\x01'; printf "$mode_switches"
  printf '\x05'; head -c 6 /dev/zero; printf '\x00\x01\x02'; talker; } > vorn_proc/ok_record_switches.bin
# A configuration file read by VornInit.
conf='[VORN_WKP]\nagc_flag = 1\nns_flag = 2\nvad_mode = 1\n'
{ printf '\x04\x02\x01\x01\x01\x02\x02\x00\x01\x02\x01'; le16 $(printf "$conf" | wc -c); printf "$conf"
  printf "$mode_switches"; printf '\x03'; head -c 4 /dev/zero; printf '\x00\x01\x02'; talker; } \
  > vorn_proc/ok_config_file.bin

# List files of the driver: pairs with every line-end form and spacing, an
# empty line ending the list early, a line longer than one read, three names.
printf 'a.wav a_out.wav\r\nb.pcm\tb_out.pcm\n  c.wav   c_out.wav  \n\nafter_the_end.wav x.wav\n' \
  > list_file/ok_pairs_any_line_end.txt
{ head -c 5000 /dev/zero | tr '\0' x; printf ' out.wav\ny.wav\n'; } > list_file/ok_long_line.txt
printf 'a.wav b.wav c.wav\n' > list_file/three_columns.txt
