# Plots of the benchmarks. Called as
#   gnuplot -e "data='FOLDER'; cdf='FOLDER'; out='FOLDER'" scripts/bench_plots.gp
# data: what bench_report.py --plot-data wrote; cdf: what kav-side-by-side --cdf wrote.
set terminal svg size 760,440 font "sans-serif,13" background "#ffffff"
set encoding utf8
set datafile separator "\t"
set grid linetype 1 linecolor rgb "#dddddd"
set key noenhanced

receivers = "kavquote reader polling epoll asio libevent libuv"
colours = "#d62728 #000000 #7f7f7f #1f77b4 #2ca02c #9467bd #ff7f0e"
there(file) = int(system(sprintf("test -s '%s' && echo 1 || echo 0", file)))
quantiles(rate, name) = sprintf("%s/rate-%s-%s.tsv", cdf, rate, name)
measured(rate) = system(sprintf("for name in %s; do if test -s '%s/rate-%s-'$name.tsv; then echo $name; fi; done", receivers, cdf, rate))
colour_of(name) = word(colours, sum [i = 1:words(receivers)] (word(receivers, i) eq name ? i : 0))

# How many messages had reached the callback after so long.
set logscale x
set xlabel "from the sender's stamp to the first line of the callback, µs"
set ylabel "messages, %"
set yrange [0:100]
set key bottom right
do for [rate in "1000 20000"] {
  names = measured(rate)
  if (words(names) > 0) {
    set output sprintf("%s/latency-%s.svg", out, rate)
    set title sprintf("%s messages a second", rate eq "1000" ? "1,000" : "20,000")
    plot for [name in names] quantiles(rate, name) using 2:($1 * 100) with lines \
      linewidth (name eq "kavquote" ? 3 : 1.5) linecolor rgb colour_of(name) title name
  }
}
unset logscale
set autoscale
set xlabel
set xtics noenhanced
set style fill solid 0.8
set boxwidth 0.6
unset key
set offsets 0, 0, graph 0.08, 0  # room for the labels

if (there(data."/flood.tsv")) {
  set output out."/throughput.svg"
  set title "As fast as it goes: reader, polling and epoll read 8 KiB at once, the others up to 64 KiB"
  set title font "sans-serif,11"
  set ylabel "million messages a second"
  set yrange [0:*]
  plot data."/flood.tsv" using 0:($2 / 1e6):xtic(1) with boxes linecolor rgb "#1f77b4", \
    "" using 0:($2 / 1e6):(sprintf("%.2f", $2 / 1e6)) with labels offset 0,0.6
  set title font ""
}

if (there(data."/idle.tsv")) {
  set output out."/idle.svg"
  set title "Logged in, nothing but heartbeats"
  set ylabel "% of one core, all threads"
  set yrange [0:*]
  plot data."/idle.tsv" using 0:($2 * 100):xtic(1) with boxes linecolor rgb "#1f77b4", \
    "" using 0:($2 * 100):(sprintf("%.2f", $2 * 100)) with labels offset 0,0.6
}

if (there(data."/growth-clients.tsv") && there(data."/growth-symbols.tsv")) {
  set terminal svg size 900,860 font "sans-serif,12" background "#ffffff"
  set output out."/growth.svg"
  set title font ""
  set logscale x
  set key top left
  set style data linespoints
  set pointsize 0.8
  set offsets 0, 0, graph 0.3, 0  # room for the key
  set yrange [0:*]
  set multiplot layout 3,2
  set xlabel "clients in one process"
  set title "Threads"
  unset ylabel
  plot data."/growth-clients.tsv" using 1:2 notitle linecolor rgb "#1f77b4"
  set title "Latency, 1,000 messages a second in all, µs"
  plot data."/growth-clients.tsv" using 1:5 title "median" linecolor rgb "#1f77b4", \
    "" using 1:6 title "99th percentile" linecolor rgb "#d62728"
  set title "Resident memory, MiB"
  plot data."/growth-clients.tsv" using 1:($3 / 1024) notitle linecolor rgb "#1f77b4"
  set title "Idle, % of one core"
  plot data."/growth-clients.tsv" using 1:($4 * 100) notitle linecolor rgb "#1f77b4"
  set xlabel "registered symbols of one client"
  set title "Resident memory, MiB"
  plot data."/growth-symbols.tsv" using 1:($6 / 1024) notitle linecolor rgb "#1f77b4"
  set title "Latency, 1,000 messages a second, µs"
  plot data."/growth-symbols.tsv" using 1:2 title "median" linecolor rgb "#1f77b4", \
    "" using 1:3 title "99th percentile" linecolor rgb "#d62728"
  unset multiplot
}
