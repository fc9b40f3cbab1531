# Plots of the quality bench. Called by bench/run.sh as
#   gnuplot -e "data='DIR'; out='DIR'" bench/plots.gp
# with DIR holding the data files vorn_bench_quality writes.
set terminal pngcairo size 900,520 font "DejaVu Sans,11" noenhanced
set grid lc rgb "#dddddd"
set key outside right top

# Direction error by reverberation and SNR: one colour per RT60, solid for
# the per-frame tracker, dashed for the utterance search.
set output out."/doa_error.png"
set title "Vorn direction error (array): per-frame tracking and utterance search"
set xlabel "SNR of diffuse pink noise (dB)"
set ylabel "azimuth error (degrees)"
set key below horizontal
set xrange [-2:22]
set yrange [0:180]
set xtics 0,10,20
set ytics 0,30,180
rts = "0.2 0.4 0.7"
colours = "#1f77b4 #2ca02c #d62728"
plot for [i=1:3] data."/doa.dat" using ($1==word(rts,i) ? $2 : 1/0):3 with linespoints lw 2 pt 7 \
       lc rgb word(colours,i) title "tracking, RT60 ".word(rts,i)." s", \
     for [i=1:3] data."/doa.dat" using ($1==word(rts,i) ? $2 : 1/0):5 with linespoints lw 2 dt 2 pt 5 \
       lc rgb word(colours,i) title "utterance, RT60 ".word(rts,i)." s"
unset xrange; unset yrange; set xtics autofreq; set ytics autofreq

# Echo attenuation over time, smoothed over about a syllable; the bands at
# the bottom mark when the far end and the near talker are in a syllable.
set output out."/echo_attenuation.png"
set title "Echo attenuation over time (echo_plain: far end 0-8 s, talker 4-12 s)"
set xlabel "time (s)"
set ylabel "microphone over output (dB, 144 ms window)"
set yrange [-12:60]
set key below horizontal
plot data."/echo_time.dat" using 1:(-11):($2 > 0 ? -8 : -11) with filledcurves fc rgb "#f4a261" title "far end talking", \
     "" using 1:(-7):($3 > 0 ? -4 : -7) with filledcurves fc rgb "#6fa8dc" title "near talker talking", \
     for [c=4:7] "" using 1:c with lines lw 2 title columnhead(c)
unset yrange

# Spectrograms before and after.
set output out."/spectrograms.png"
set terminal pngcairo size 800,720 font "DejaVu Sans,9" noenhanced
set multiplot layout 3,1 title "echo_noisy_delayed: far end 0-8 s, talker 4-12 s, room noise at 15 dB SNR"
set view map
set cbrange [-110:-30]
set cblabel "dBFS"
set palette defined (0 "black", 1 "#3b0f70", 2 "#8c2981", 3 "#de4968", 4 "#fe9f6d", 5 "#fcfdbf")
set yrange [0:8000]
set xrange [0:12]
set ylabel "Hz"
unset key
set xlabel ""
set title "microphone 0 (no processing)"
plot data."/spectrogram_mic0.dat" using 1:2:3 with image
set title "Vorn 1-mic (echo canceller + noise suppressor)"
plot data."/spectrogram_vorn_mono.dat" using 1:2:3 with image
set title "SpeexDSP (echo canceller + preprocessor)"
set xlabel "time (s)"
plot data."/spectrogram_speex.dat" using 1:2:3 with image
unset multiplot
unset xrange; unset yrange; unset view; set key outside right top

# Speech flags against the truth.
set terminal pngcairo size 1000,520 font "DejaVu Sans,11" noenhanced
set output out."/vad.png"
set title "Speech flags against the truth (doa_rt0.4_snr10; talker from 2 s)"
set xlabel "time (s)"
set ylabel ""
set yrange [-4.5:1.2]
set ytics ("mic 0 level" 0.5, "truth" -0.5, "Vorn 1-mic" -1.5, "Vorn array" -2.5, "SpeexDSP" -3.5)
set xrange [0:12]
plot data."/vad.dat" using 1:(($2+90)/90.0) with lines lc rgb "#888888" notitle, \
     "" using 1:($3*0.8-0.9) with steps lw 2 lc rgb "black" notitle, \
     "" using 1:($4 < 0 ? 1/0 : $4*0.8-1.9) with steps lw 2 lc rgb "#1f77b4" notitle, \
     "" using 1:($5 < 0 ? 1/0 : $5*0.8-2.9) with steps lw 2 lc rgb "#2ca02c" notitle, \
     "" using 1:($6 < 0 ? 1/0 : $6*0.8-3.9) with steps lw 2 lc rgb "#d62728" notitle
unset yrange; unset xrange; set ytics autofreq

# Output level against input level.
set terminal pngcairo size 900,520 font "DejaVu Sans,11" noenhanced
set output out."/agc_levels.png"
set title "Gain control: output speech level against talker level"
set xlabel "talker level at microphone 0 (dBFS)"
set ylabel "output active speech level (dBFS)"
set key inside left top
plot data."/agc.dat" using 1:2 with linespoints lw 2 pt 7 title "mic 0 (no processing)", \
     "" using 1:3 with linespoints lw 2 pt 5 title "Vorn 1-mic + AGC", \
     "" using 1:4 with linespoints lw 2 pt 9 title "SpeexDSP + AGC"
