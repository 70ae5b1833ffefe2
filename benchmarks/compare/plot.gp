# Plots the table written by vexutil-compare --csv: median ns per operation
# of every system, the asynchronous and the synchronous workload side by side.
# Usage: gnuplot -e "csv='compare.csv'; png='compare.png'" plot.gp
set datafile separator ','
set terminal pngcairo size 1100,480 noenhanced font ',10'
set output png
set multiplot layout 1,2 title 'vexutil-compare: median of the rounds, lower is better'
set style data histograms
set style histogram clustered gap 1
set style fill solid 0.8 border -1
set boxwidth 0.8
set grid ytics
set yrange [0:*]
set key off
set xtics nomirror

set title 'asynchronous: ns per event (first post to last delivery)'
set ylabel 'ns per event'
plot csv using 2:xtic(1) skip 1 linecolor rgb '#4477aa', \
     '' using 0:2:(sprintf('%.0f', $2)) skip 1 with labels offset 0,0.7 notitle

set title 'synchronous: ns per round trip'
set ylabel 'ns per round trip'
plot csv using 6:xtic(1) skip 1 linecolor rgb '#cc6677', \
     '' using 0:6:(sprintf('%.0f', $6)) skip 1 with labels offset 0,0.7 notitle

unset multiplot
