# Plot of a soak. Called as
#   gnuplot -e "samples='FILE.csv'; out='FILE.svg'" scripts/soak_plot.gp
# samples: what kav-soak --samples wrote.
set datafile separator ","
stats samples using 1 every ::1 nooutput
step = ceil(STATS_records / 600.0)  # a long soak needs no more points than a short one
set terminal svg size 900,760 font "sans-serif,12" background "#ffffff"
set encoding utf8
set grid linetype 1 linecolor rgb "#dddddd"
set output out
set xrange [0:*]
set yrange [0:*]
set offsets 0, 0, graph 0.15, 0  # room for the key
set style data lines
unset ylabel
minutes(s) = s / 60.0
set multiplot layout 3,1
set key top left horizontal

set title "Resident memory of the client's process, KiB"
plot samples using (minutes($1)):6 every step::1 notitle linewidth 2 linecolor rgb "#1f77b4"

set title step == 1 ? "In use, looked at every second" : sprintf("In use, looked at every %d s", step)
plot samples using (minutes($1)):4 every step::1 with points pointtype 7 pointsize 0.3 \
    linecolor rgb "#1f77b4" title "open descriptors", \
  "" using (minutes($1)):5 every step::1 with points pointtype 7 pointsize 0.3 \
    linecolor rgb "#d62728" title "threads"

set title "So far"
set xlabel "minutes"
set ylabel "million quotes"
set ytics nomirror
set y2label "reconnections"
set y2tics
set y2range [0:*]
plot samples using (minutes($1)):($2 / 1e6) every step::1 linewidth 2 linecolor rgb "#1f77b4" \
    title "quotes", \
  "" using (minutes($1)):3 every step::1 axes x1y2 linewidth 2 linecolor rgb "#d62728" \
    title "reconnections"
unset multiplot
