# Time against the number of active mask elements, ours beside OpenCV, one
# panel per mask shape, on logarithmic axes (the slope shows the order of growth). Called by make_report.py:
#   gnuplot -e "data='FILE'; output='PNG'; subtitle='TEXT'" growth.gp
# FILE holds three blocks (squares, disks, horizontal lines), each of lines
# "active ours_ms opencv_ms", separated by two blank lines.
set terminal pngcairo size 1500,500 font ",11"
set output output
set multiplot layout 1,3 title "Time per call against active mask elements: ".subtitle
set xlabel "active mask elements"
set ylabel "ms per call"
set key top left
set grid
set logscale xy
shapes = "squares disks lines"
do for [i = 0:2] {
    set title word(shapes, i + 1)
    plot data index i using 1:2 with linespoints pt 7 title "flatmorph", \
         data index i using 1:3 with linespoints pt 5 title "OpenCV"
}
unset multiplot
