# Plots how cost grows, from the results of scripts/bench: gnuplot -c growth.gp DIRECTORY SVG
set terminal svg size 900,640 font "sans-serif,12" background "#ffffff"
set output ARG2
set key bottom right reverse Left samplen 2
set yrange [0:*]
set style data linespoints
set linetype 1 lc "#4477aa" pt 7 ps 0.5 lw 1.5
set linetype 2 lc "#ee6677" pt 7 ps 0.5 lw 1.5
set linetype 3 lc "#228833" pt 7 ps 0.5 lw 1.5
file(name) = ARG1 . "/" . name . ".dat"
set multiplot layout 2,2

set title "Decoding, ns a message"
set xlabel "processes"
set logscale x
set xrange [10:10000]
plot file("processes") using 1:3 title "decode and store", "" using 1:2 title "bare varint walk"

set title "A block, us"
set xlabel "block, KiB"
set logscale x 2
set logscale y
set yrange [*:100000]
set key top left
set xrange [1:128]
plot file("block") using 1:4 title "read data, chain of 10 MiB", "" using 1:3 title "decode", "" using 1:2 title "copy"

unset logscale
set yrange [0:*]
set xrange [0:10]
set title "The chain"
set xlabel "chain, MiB"
plot file("chain") using 1:2 title "read data of 1 KiB, us", "" using 1:3 title "dump on disk, ms", \
    "" using 1:4 title "dump on tmpfs, ms"

set key bottom right
set title "Request to answer, 17 vitals, us"
set xlabel "window, s"
set xrange [0:180]
plot file("window") using 1:3 title "full input", "" using 1:2 title "idle"
