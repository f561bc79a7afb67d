#!/usr/bin/env bash
# check_trace_points.sh SOURCES LIST [--update]: every trace point of the sources (number, word,
# text, with the names of its functions in place of %s) stands in the list, so that no line of a
# trace changes unnoticed; and each number is written once, because a number in a trace file has to
# lead to one message. --update writes the list.
set -euo pipefail
export LC_ALL=C
sources=$1 list=$2
found=$(mktemp)
trap 'rm -f "$found"' EXIT

perl -0 -e '
  use strict;
  my %shared = map { $_ => 2 } 1029, 1034, 3002;  # two messages each, known by these numbers
  my $texts = qr/(?:"(?:[^"\\]|\\.)*+"\s*)++/;
  my (%points, %written, $failures);
  sub complain { print STDERR "@_\n"; ++$failures; }
  sub unquote { my $text = join("", $_[0] =~ /"((?:[^"\\]|\\.)*)"/g); return $text; }
  for my $file (@ARGV) {
    open(my $in, "<", $file) or die $file;
    my $code = <$in> =~ s{//[^\n]*}{}gr =~ s{^#define(?:[^\n]*\\\n)*[^\n]*}{}gmr;
    # The tables that name functions and numbers: a row is a hash of the fields of its structure.
    my (%rows, $copy);
    while ($code =~ /\bstruct (\w+) \{\s*((?:(?:const char\*|bool|int) \w+(?: = 0)?;\s*)+)\}/g) {
      my ($type, $fields) = ($1, $2);
      my @fields = $fields =~ /(\w+)(?: = 0)?;/g;
      next unless $fields =~ /Point\b/;
      my @tables = ($copy = $code) =~ /\b$type \w+ = \{([^{}]*)\}/g;
      @tables = $copy =~ /\(\{("[^{}]*)\}/g unless @tables;
      for my $table (@tables) {
        my %row = map { $_ => "0" } @fields;
        my @cells = map { s/^\s+|\s+$//gr } split /,/, $table;
        if ($table =~ /^\s*\./) {
          %row = (%row, map { /^\.(\w+) = (.+)$/s } @cells);
        } else {
          @row{@fields} = @cells;
        }
        push @{$rows{"$type.$_"}}, \%row for @fields;
        $written{$_}++ for grep { /^[1-9]\d{3}$/ } values %row;
      }
    }
    # Numbers with a name, and those that a call hands to the function that traces for it.
    my %named = $code =~ /constexpr int (k\w+Point) = (\d+);/g;
    $written{$_}++ for values %named;
    push @{$rows{point}}, {function => $1, point => $2} while $code =~ /\(("\w+"), (\d{4})\b/g;
    $written{$_->{point}}++ for @{$rows{point}};

    my $calls = () = $code =~ /\b(?:TRACE_(?:LOCK_)?[A-Z]+|ZEB_TRACE\w*)\(/g;
    while ($code =~ /\b(?:TRACE_(?:LOCK_)?([A-Z]+)\(|ZEB_TRACE_WITH\([^;"]*"(\w+)",)\s*([\w.]+),\s*($texts)([^;]*)\);/g) {
      my $before = substr($code, 0, $-[0]);
      my ($word, $point, $text, $arguments) = ($1 // $2, $3, $4, $5);
      --$calls;
      $word = "*EXC*" if $word eq "EXC";
      $arguments =~ s/.*kTerminator//s if $word eq "DATA";
      my @arguments = split /,\s*/, $arguments =~ s/^,\s*//r;
      my ($variable, $field) = $point =~ /^(?:(\w+)\.)?(\w+)$/;
      my @types = $variable ? $before =~ /const (\w+)& $variable\b/g : ();
      $written{$point}++ if $point =~ /^\d+$/;
      my $number = $named{$point} // $point;
      my @uses = $number =~ /^\d+$/ ? ({$field => $number})
                                    : @{$rows{$variable ? "$types[-1].$field" : "point"} // []};
      complain("$file: where is $point written?") unless @uses;
      for my $row (grep { $_->{$field} ne "0" } @uses) {
        my @left = @arguments;
        my $shown = unquote($text) =~ s{(%[-0-9.]*[a-z])}{
          my $conversion = $1;
          my $cell = $row->{(shift(@left) // "") =~ s/^\w+\.//r} // "";
          $cell =~ /^"/ ? unquote($cell) : $conversion}ger;
        $number = $named{$row->{$field}} // $row->{$field};
        complain("$file: one number for the messages of several functions: $number $text")
          if $point eq $number && $shown =~ /^(?:API|stapi_zeb_\w+)\.%s/;
        $points{"$number $word $shown"} = 1;
      }
    }
    complain("$file: $calls calls of a trace macro are not understood") if $calls;
  }
  $written{$_} <= ($shared{$_} // 1) or complain("$_ is written $written{$_} times")
    for sort keys %written;
  print "$_\n" for sort keys %points;
  exit($failures ? 1 : 0);
' "$sources"/*.cpp "$sources"/*.h >"$found"

[ "${3-}" != --update ] || cp "$found" "$list"
diff "$list" "$found" || {
  echo "the trace points differ from $list" >&2
  exit 1
}
