# Time per point against the number of points, one line per implementation,
# from the uniform scaling series of bench/run_peers.sh. Called as
#   gnuplot -e "dataDir='DIR'; outFile='FILE.png'" bench/plot_peers.gp
# where DIR holds series_<implementation>.dat files of lines "N microseconds".
set terminal pngcairo size 900,600 font "sans,11"
set output outFile
set title "3D Delaunay construction, uniform random points in the unit cube"
set xlabel "number of points N"
set ylabel "time per point (microseconds)"
set logscale x
set format x "10^{%L}"
set yrange [0:*]
set grid xtics ytics mxtics
set key top left box opaque
plot dataDir."/series_libvelm3d.dat" using 1:2 with linespoints lw 2 pt 7 title "libvelm3d", \
     dataDir."/series_CGAL.dat" using 1:2 with linespoints lw 2 pt 5 title "CGAL Delaunay\\_triangulation\\_3 (Epick)", \
     dataDir."/series_TetGen.dat" using 1:2 with linespoints lw 2 pt 9 title "TetGen (-QNF)"
